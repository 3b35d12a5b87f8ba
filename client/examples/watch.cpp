// Prints which cameras are attached and detached, until the service ends. The service reports
// changes only if no desktop program was connected before.
#include <future>
#include <iostream>
#include <memory>

#include <orvik/client.h>

int main() {
    try {
        // Shared, because the handler's last call may still be in progress when main() continues.
        auto gone = std::make_shared<std::promise<void>>();
        orvik::Client client;
        const orvik::Subscription subscription =
            client.Subscribe([gone](const orvik::Event& event) {
                switch (event.kind) {
                    case orvik::Event::Kind::kCameraAttached:
                        std::cout << "camera " << event.camera << " is attached" << std::endl;
                        break;
                    case orvik::Event::Kind::kCameraDetached:
                        std::cout << "camera " << event.camera << " is detached" << std::endl;
                        break;
                    case orvik::Event::Kind::kServiceGone:
                        std::cout << "the service has ended" << std::endl;
                        gone->set_value();
                        break;
                }
            });
        gone->get_future().wait();
        return 0;
    } catch (const orvik::Error& error) {
        std::cerr << "error: " << error.what() << '\n';
        return 1;
    }
}
