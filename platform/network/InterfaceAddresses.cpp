#include "platform/network/InterfaceAddresses.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr std::size_t kBufferSize = 32768;  // what the kernel fills at most for one read of a dump
// Together half a second: longer than the burst of a network that is being set up.
constexpr int kDumpAttempts = 10;
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr unsigned kDumpNumber = 1;

using Buffer = std::vector<char>;

struct Attributes {
  const nlattr* address = nullptr;
  const nlattr* local = nullptr;
  const nlattr* flags = nullptr;
};

int noteAttribute(const nlattr* attribute, void* data) {
  auto& found = *static_cast<Attributes*>(data);
  switch (mnl_attr_get_type(attribute)) {
    case IFA_ADDRESS:
      found.address = attribute;
      break;
    case IFA_LOCAL:
      found.local = attribute;
      break;
    case IFA_FLAGS:
      found.flags = attribute;
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

int noteAddress(const nlmsghdr* message, void* data) {
  if (message->nlmsg_type != RTM_NEWADDR || mnl_nlmsg_get_payload_len(message) < sizeof(ifaddrmsg)) {
    return MNL_CB_OK;
  }
  const auto* header = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(message));
  const std::size_t size = header->ifa_family == AF_INET    ? sizeof(in_addr)
                           : header->ifa_family == AF_INET6 ? sizeof(in6_addr)
                                                            : 0;
  Attributes attributes;
  mnl_attr_parse(message, sizeof(ifaddrmsg), noteAttribute, &attributes);
  // On a link between two points the other attribute is the address at the far end.
  const nlattr* own = attributes.local ? attributes.local : attributes.address;
  if (size == 0 || !own || mnl_attr_get_payload_len(own) != size) return MNL_CB_OK;

  InterfaceAddress address;
  address.family = header->ifa_family;
  address.scope = header->ifa_scope;
  address.flags = header->ifa_flags;
  if (attributes.flags && mnl_attr_validate(attributes.flags, MNL_TYPE_U32) == 0) {
    address.flags = mnl_attr_get_u32(attributes.flags);
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (!inet_ntop(address.family, mnl_attr_get_payload(own), text.data(), text.size())) return MNL_CB_OK;
  address.text = text.data();
  static_cast<std::vector<InterfaceAddress>*>(data)->push_back(std::move(address));
  return MNL_CB_OK;
}

Result<RouteSocket> openSocket(int flags, unsigned groups) {
  RouteSocket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | flags));
  if (!socket || mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) != 0) return SystemError::last();
  return socket;
}

// EINTR when the addresses changed while they were told.
Result<std::vector<InterfaceAddress>> dumpAddresses(mnl_socket* socket, Buffer& buffer) {
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETADDR;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = kDumpNumber;
  static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtgenmsg)))->rtgen_family = AF_UNSPEC;
  if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) return SystemError::last();

  std::vector<InterfaceAddress> addresses;
  while (true) {
    const ssize_t size =
        uninterrupted([&] { return mnl_socket_recvfrom(socket, buffer.data(), buffer.size()); });
    if (size < 0) return SystemError::last();
    const int answer = mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), kDumpNumber,
                                  mnl_socket_get_portid(socket), noteAddress, &addresses);
    if (answer == MNL_CB_ERROR) return SystemError::last();
    if (answer == MNL_CB_STOP) return addresses;
  }
}

}  // namespace

void RouteSocketClosing::operator()(mnl_socket* socket) const {
  mnl_socket_close(socket);
}

Result<std::vector<InterfaceAddress>> interfaceAddresses() {
  Buffer buffer(kBufferSize);
  auto pause = kFirstPause;
  for (int attempt = 1;; ++attempt) {
    // A new socket for every attempt: what is left of an interrupted answer must not be read as the next
    // one's.
    const auto socket = openSocket(0, 0);
    if (!socket) return socket.error();
    auto addresses = dumpAddresses(socket.value().get(), buffer);
    if (addresses || addresses.error().code() != EINTR || attempt == kDumpAttempts) return addresses;
    std::this_thread::sleep_for(pause);
    pause *= 2;
  }
}

Result<AddressNotices> AddressNotices::open() {
  auto socket = openSocket(SOCK_NONBLOCK, RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
  if (!socket) return socket.error();
  return AddressNotices(std::move(socket).value());
}

int AddressNotices::descriptor() const {
  return mnl_socket_get_fd(socket_.get());
}

Result<bool> AddressNotices::take() {
  Buffer buffer(kBufferSize);
  bool any = false;
  while (true) {
    const ssize_t size =
        uninterrupted([&] { return mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size()); });
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return any;
    // ENOBUFS: notices were lost. ENOSPC: one was longer than the buffer.
    if (size < 0 && errno != ENOBUFS && errno != ENOSPC) return SystemError::last();
    any = true;
  }
}

}  // namespace tessard
