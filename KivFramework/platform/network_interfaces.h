#pragma once

#include <array>
#include <string>
#include <vector>

namespace KivFramework::platform {

/// The first six bytes of an interface's hardware address.
struct link_address {
    std::string interface_name;
    std::array<unsigned char, 6> address;
};

/// The link-level addresses of all interfaces, in the system's order; none when the system does not
/// tell.
std::vector<link_address> link_addresses();

} // namespace KivFramework::platform
