#include "sweep_support.h"
#include "tls_support.h"

const SweepRoute& TheRoute() {
    static const SweepRoute route{
        .tls = true, .server = ServerTls("good"), .start = [](std::uint16_t port, std::shared_ptr<void>& owner) {
            auto relay = std::make_shared<TestRelay>(RelayOptions{}, port);
            owner = relay;
            return relay->Port();
        }};
    return route;
}
