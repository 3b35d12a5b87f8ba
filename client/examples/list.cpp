// Lists the cameras with their vendors and products.
#include <iostream>

#include <orvik/client.h>

int main() {
    try {
        orvik::Client client;
        for (const orvik::CameraId camera : client.Cameras()) {
            const auto answer = client.TransferIn(camera, orvik::InquiryCdb());
            const auto inquiry = orvik::DecodeInquiry(answer);
            std::cout << camera << ": " << inquiry.vendor << ' ' << inquiry.product << '\n';
        }
        return 0;
    } catch (const orvik::Error& error) {
        std::cerr << "error: " << error.what() << '\n';
        return 1;
    }
}
