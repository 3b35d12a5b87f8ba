#include "client/request_message.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace orvik {

std::vector<std::byte> MakeTransferRequest(TransferType type, CameraId camera,
                                           std::span<const std::byte> cdb,
                                           std::span<const std::byte> data,
                                           std::size_t transferOutLimit) {
    if (cdb.empty() || cdb.size() > kCdbLimit)
        throw Error(ErrorKind::kBadArgument, "cdb must have 1 to " + std::to_string(kCdbLimit) +
                                                 " bytes; it has " + std::to_string(cdb.size()));
    if (data.size() > transferOutLimit)
        throw Error(ErrorKind::kBadArgument,
                    "data must have at most " + std::to_string(transferOutLimit) +
                        " bytes; it has " + std::to_string(data.size()) +
                        ". The service gives up a camera whose adapter refuses a long transfer. "
                        "Send the data with several commands, or set "
                        "ConnectOptions::transferOutLimit, at most " +
                        std::to_string(kTransferOutLimit));
    const MessageHeader header{type, 0, camera,
                               static_cast<std::uint32_t>(kCdbFieldSize + data.size())};
    std::vector<std::byte> message;
    message.reserve(sizeof(header) + header.bodyLength);
    const auto headerBytes = std::as_bytes(std::span(&header, 1));
    message.insert(message.end(), headerBytes.begin(), headerBytes.end());
    message.insert(message.end(), cdb.begin(), cdb.end());
    message.resize(sizeof(header) + kCdbFieldSize);  // the rest of the field is zero
    message.insert(message.end(), data.begin(), data.end());
    return message;
}

RoundTripRequest MakeRoundTripRequest(RequestId id) noexcept {
    const MessageHeader header{kTransferNoData, id, 0, 0};
    RoundTripRequest message{};
    std::memcpy(message.data(), &header, sizeof(header));
    return message;
}

void SetRequestId(std::span<std::byte> message, RequestId id) noexcept {
    std::memcpy(message.data() + offsetof(MessageHeader, requestId), &id, sizeof(id));
}

}  // namespace orvik
