#include "commands.h"

#include "virtual_camera.h"

namespace {

Cdb MakeCdb(std::uint8_t code, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3, std::uint8_t b4) {
    return {std::byte{code}, std::byte{b1}, std::byte{b2}, std::byte{b3}, std::byte{b4}};
}

Cdb BlockCommand(std::uint8_t code, std::uint32_t block, std::uint8_t blocks) {
    return MakeCdb(code, static_cast<std::uint8_t>(block >> 16 & 0x1F),
                   static_cast<std::uint8_t>(block >> 8 & 0xFF),
                   static_cast<std::uint8_t>(block & 0xFF), blocks);
}

}  // namespace

Cdb TestUnitReady() {
    return MakeCdb(0x00, 0, 0, 0, 0);
}

Cdb Inquiry(std::uint8_t allocationLength) {
    return MakeCdb(0x12, 0, 0, 0, allocationLength);
}

Cdb Read6(std::uint32_t block, std::uint8_t blocks) {
    return BlockCommand(0x08, block, blocks);
}

Cdb Write6(std::uint32_t block, std::uint8_t blocks) {
    return BlockCommand(0x0A, block, blocks);
}

Bytes Write6(std::uint32_t block, std::span<const std::byte> data) {
    return Write6(block, static_cast<std::uint8_t>(data.size() / vcam::kBlockSize)) + data;
}
