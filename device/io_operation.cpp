#include "device/io_operation.h"

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <utility>

static_assert(offsetof(IoOperation, overlapped) == 8, "found from its OVERLAPPED");

IoOperation::IoOperation(IoCallback completionCallback) : callback(std::move(completionCallback)) {}

IoOperation::~IoOperation() {
    if (keeper != nullptr) {
        keeper->operation = nullptr;
        keeper->issued = false;
    }
}

IoOperation* IoOperation::FromOverlapped(OVERLAPPED* member) noexcept {
    return CONTAINING_RECORD(member, IoOperation, overlapped);
}

void IoOperation::Reset() {
    if (status == kPending) {
        std::cerr << "IoOperation::Reset expected status != kPending, instead status = " << 0
                  << std::endl;
        return;
    }
    status = kPending;
    completionKey = 0;
    bytesTransferred = 0;
    errorCode = 0;
}

void IoOperation::Complete(std::uint32_t bytes, std::uint64_t key) {
    if (keeper != nullptr)
        keeper->issued = false;  // the packet is off the port, even if it is refused below
    if (status != kPending) {
        std::cerr << "IoOperation::Complete expected status == kPending, instead status = "
                  << status << std::endl;
        return;
    }
    status = kComplete;
    completionKey = key;
    bytesTransferred = bytes;
    callback(this);  // this operation may be gone now
}

void IoOperation::Error(std::uint32_t code) {
    if (keeper != nullptr)
        keeper->issued = false;
    if (status != kPending) {
        std::cerr << "IoOperation::Error expected status == kPending, instead status = " << status
                  << std::endl;
        return;
    }
    status = kError;
    errorCode = code;
    callback(this);  // this operation may be gone now
}

KeptOperation::KeptOperation(IoCallback callback)
    : operation(new IoOperation(std::move(callback))) {
    operation->keeper = this;
}

KeptOperation::~KeptOperation() {
    if (!issued) {
        delete operation;
        return;
    }
    operation->keeper = nullptr;
    // One that was issued without a Reset() would refuse its packet, and would never be freed.
    if (operation->status != IoOperation::kPending)
        operation->Reset();
}

void DiscardOperation(IoOperation* operation) noexcept {
    std::free(operation->transferBuffer);
    delete operation;
}
