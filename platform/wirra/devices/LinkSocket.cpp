#include "platform/wirra/devices/LinkSocket.h"

#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Wirra {

namespace {

constexpr int eventBufferBytes = 1 << 20;

[[noreturn]] void fail(const char* what, int error) {
  const auto code = error == -NLE_PERM ? std::errc::operation_not_permitted : std::errc::io_error;
  throw std::system_error(std::make_error_code(code),
                          std::string("cannot ") + what + ": " + nl_geterror(error));
}

int gather(nl_msg* message, void* links) {
  auto link = linkOf(*nlmsg_hdr(message));
  if (link) static_cast<std::vector<Link>*>(links)->push_back(std::move(*link));
  return NL_OK;
}

int askForAll(nl_sock* socket) {
  const std::unique_ptr<nl_msg, decltype(&nlmsg_free)> request(
      nlmsg_alloc_simple(RTM_GETLINK, NLM_F_DUMP), nlmsg_free);
  ifinfomsg all{};
  if (!request || nlmsg_append(request.get(), &all, sizeof all, NLMSG_ALIGNTO) < 0 ||
      nla_put_u32(request.get(), IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS) < 0) {
    return -NLE_NOMEM;
  }
  return nl_send_auto(socket, request.get());
}

}  // namespace

void NetlinkSocketFree::operator()(nl_sock* socket) const { nl_socket_free(socket); }

NetlinkSocket routeSocket() {
  NetlinkSocket socket(nl_socket_alloc());
  if (!socket) throw std::bad_alloc();
  if (const int error = nl_connect(socket.get(), NETLINK_ROUTE)) {
    fail("ask the kernel for its network devices", error);
  }
  return socket;
}

std::vector<Link> allLinks() {
  constexpr int mostAttempts = 16;  // a table that changes while it is read comes out torn
  std::vector<Link> links;
  int error = 0;
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    links.clear();
    const NetlinkSocket socket = routeSocket();
    nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, gather, &links);
    error = askForAll(socket.get());
    if (error >= 0) error = nl_recvmsgs_default(socket.get());
    if (error >= 0) return links;
    if (error != -NLE_DUMP_INTR) break;
  }
  fail("read the kernel's network devices", error);
}

LinkEvents::LinkEvents() : socket_(routeSocket()) {
  nl_socket_disable_seq_check(socket_.get());
  nl_socket_set_buffer_size(socket_.get(), eventBufferBytes, 0);  // best effort
  int error = nl_socket_add_membership(socket_.get(), RTNLGRP_LINK);
  if (error >= 0) error = nl_socket_set_nonblocking(socket_.get());
  if (error < 0) fail("follow the kernel's network devices", error);
}

int LinkEvents::descriptor() const { return nl_socket_get_fd(socket_.get()); }

bool LinkEvents::read(size_t most, std::vector<Link>* links) {
  nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, gather, links);
  for (size_t messages = 0; messages < most; ++messages) {
    const int error = nl_recvmsgs_default(socket_.get());
    if (error >= 0 || error == -NLE_INTR) continue;
    if (error == -NLE_AGAIN) return true;
    discard();
    return false;
  }
  return true;
}

// Waiting events are older than the lost ones: they must not be applied after all devices were
// read.
void LinkEvents::discard() {
  char byte = 0;
  while (recv(descriptor(), &byte, sizeof byte, MSG_DONTWAIT) >= 0 || errno == ENOBUFS ||
         errno == EINTR) {
  }
}

}  // namespace Wirra
