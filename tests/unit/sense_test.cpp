// Sense data as cameras send it.

#include <cstddef>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "support/bytes.h"
#include "support/client_results.h"

namespace {

using client_test::KindOf;
using client_test::MakeBytes;
using orvik::DecodeSense;
using orvik::ErrorKind;
using orvik::Sense;

auto Values(const Sense& sense) {
    return std::tuple(+sense.key, +sense.code, +sense.qualifier, sense.deferred, sense.text);
}

auto Expected(int key, int code, int qualifier, bool deferred, const std::string& text) {
    return std::tuple(key, code, qualifier, deferred, text);
}

TEST(Sense, OfTheFixedFormat) {
    EXPECT_EQ(Values(DecodeSense(
                  MakeBytes({0xF0, 0, 0x25, 1, 2, 3, 4, 10, 0, 0, 0, 0, 0x24, 0, 0, 0, 0, 0}))),
              Expected(5, 0x24, 0, false, "ILLEGAL REQUEST: INVALID FIELD IN CDB"));
    EXPECT_EQ(
        Values(DecodeSense(MakeBytes({0x71, 0, 0x03, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0x11, 0x02}))),
        Expected(3, 0x11, 0x02, true, "MEDIUM ERROR: ERROR TOO LONG TO CORRECT"));
}

TEST(Sense, OfTheFormatWithDescriptors) {
    EXPECT_EQ(Values(DecodeSense(MakeBytes({0x72, 0x06, 0x28, 0x00, 0, 0, 0, 0}))),
              Expected(6, 0x28, 0, false,
                       "UNIT ATTENTION: NOT READY TO READY CHANGE, MEDIUM MAY HAVE CHANGED"));
    EXPECT_TRUE(DecodeSense(MakeBytes({0x73, 0x00, 0, 0, 0, 0, 0, 0})).deferred);
}

TEST(Sense, FixedFormatEndsWhereTheCameraOrItsLengthSaysSo) {
    const std::string none = "NOT READY: NO ADDITIONAL SENSE INFORMATION";
    EXPECT_EQ(DecodeSense(MakeBytes({0x70, 0, 2, 0, 0, 0, 0, 10})).text, none);
    EXPECT_EQ(DecodeSense(MakeBytes({0x70, 0, 2, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0x3A, 0x01})).text,
              none);
    EXPECT_EQ(DecodeSense(MakeBytes({0x70, 0, 2, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0x3A, 0x01})).text,
              "NOT READY: MEDIUM NOT PRESENT");
}

TEST(Sense, UnknownCodesAreGivenAsNumbers) {
    const auto text = [](unsigned code, unsigned qualifier) {
        return DecodeSense(MakeBytes({0x72, 0x0B, code, qualifier, 0, 0, 0, 0})).text;
    };
    EXPECT_EQ(text(0x3F, 0x7E), "ABORTED COMMAND: CODE 3Fh/7Eh");
    EXPECT_EQ(text(0x80, 0x01), "ABORTED COMMAND: VENDOR SPECIFIC CODE 80h/01h");
    EXPECT_EQ(text(0x04, 0x80), "ABORTED COMMAND: VENDOR SPECIFIC CODE 04h/80h");
    EXPECT_EQ(text(0x40, 0x85), "ABORTED COMMAND: DIAGNOSTIC FAILURE ON COMPONENT 85h");
    EXPECT_EQ(text(0xFF, 0xFF), "ABORTED COMMAND: VENDOR SPECIFIC CODE FFh/FFh");
}

TEST(Sense, OtherDataIsABadAnswer) {
    EXPECT_EQ(KindOf([] { DecodeSense(Bytes(7, std::byte{0x70})); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(KindOf([] { DecodeSense(Bytes(18)); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(KindOf([] { DecodeSense(Bytes(18, std::byte{0x74})); }), ErrorKind::kBadAnswer);
}

}  // namespace
