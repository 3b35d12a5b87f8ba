// Tells of cameras that come and go, until the service goes. Hears of changes only if no desktop
// program is connected.
#include <future>
#include <iostream>
#include <memory>

#include <orvik/client.h>

int main() {
    try {
        // Shared: the last call of the handler may still be ending when main() goes on.
        auto gone = std::make_shared<std::promise<void>>();
        orvik::Client client;
        const orvik::Subscription subscription =
            client.Subscribe([gone](const orvik::Event& event) {
                switch (event.kind) {
                    case orvik::Event::Kind::kCameraAttached:
                        std::cout << "camera " << event.camera << " is there" << std::endl;
                        break;
                    case orvik::Event::Kind::kCameraDetached:
                        std::cout << "camera " << event.camera << " has gone" << std::endl;
                        break;
                    case orvik::Event::Kind::kServiceGone:
                        std::cout << "the service has gone" << std::endl;
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
