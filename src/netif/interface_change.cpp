#include "netif/interface_change.h"

#include <array>
#include <string_view>
#include <utility>

#include "netif/kernel_answers.h"

namespace libnetif {

namespace {

std::optional<int> index_of_link(byte_span payload) {
  ifinfomsg link;
  return read_prefix(payload, link) ? std::optional<int>(link.ifi_index) : std::nullopt;
}

std::optional<int> index_of_address(byte_span payload) {
  ifaddrmsg address;
  return read_prefix(payload, address) ? std::optional<int>(static_cast<int>(address.ifa_index)) : std::nullopt;
}

struct change_message {
  uint16_t type;
  interface_change_event_type event;
  std::optional<int> (*read_index)(byte_span payload);
  size_t header_size;
  uint16_t name_attribute;
};

using enum interface_change_event_type;

// Message types of rtnetlink, what they report, and where the interface stands in them.
constexpr auto change_messages = std::to_array<change_message>({
    {RTM_NEWLINK, link_changes, index_of_link, sizeof(ifinfomsg), IFLA_IFNAME},
    {RTM_DELLINK, link_changes, index_of_link, sizeof(ifinfomsg), IFLA_IFNAME},
    {RTM_NEWADDR, ipv4_address_changes, index_of_address, sizeof(ifaddrmsg), IFA_LABEL},
    {RTM_DELADDR, ipv4_address_changes, index_of_address, sizeof(ifaddrmsg), IFA_LABEL},
});

const change_message* find_change_message(uint16_t type) {
  for (const change_message& row : change_messages) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

bool shares_a_bit(interface_change_event_type left, interface_change_event_type right) {
  return (static_cast<uint32_t>(left) & static_cast<uint32_t>(right)) != 0;
}

// An address label is the interface's name, followed by ':' and a tag where the address has one.
std::string name_in(byte_span attribute) {
  const std::string_view text(reinterpret_cast<const char*>(attribute.data()), attribute.size());
  return std::string(text.substr(0, text.find_first_of(std::string_view(":\0", 2))));
}

}  // namespace

bool parse_interface_change(const netlink_message& message, interface_change_event_type wanted,
                            interface_change& change) {
  const change_message* row = find_change_message(message.type);
  if (row == nullptr || !shares_a_bit(row->event, wanted)) return false;
  const std::optional<int> index = row->read_index(message.payload);
  if (!index) return false;
  interface_change found{.interface_index = *index, .name = {}};
  for_each_attribute(skip_aligned(message.payload, row->header_size), [&](uint16_t type, byte_span payload) {
    if (type == row->name_attribute) found.name = name_in(payload);
  });
  change = std::move(found);
  return true;
}

}  // namespace libnetif
