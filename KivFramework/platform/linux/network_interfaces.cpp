#include "KivFramework/platform/network_interfaces.h"

#include <algorithm>
#include <memory>

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

std::vector<KivFramework::platform::link_address> KivFramework::platform::link_addresses() {
    ifaddrs* head = nullptr;
    if (::getifaddrs(&head) == -1) {
        return {};
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(head, &::freeifaddrs);

    std::vector<link_address> addresses;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) {
            continue;
        }
        // The family says which address record this is; the list aligns it.
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        link_address& found = addresses.emplace_back();
        found.interface_name = entry->ifa_name;
        std::copy_n(std::begin(link->sll_addr), found.address.size(), found.address.begin());
    }
    return addresses;
}
