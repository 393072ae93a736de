// wex_rpc: framing of control messages, and the client's one connection.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <utility>

#include "unique_fd.h"
#include "wex.h"

// The owner of a message block.
class owned_msg {
 public:
  explicit owned_msg(wex_inner_msg* msg = nullptr) noexcept : msg_(msg) {}
  ~owned_msg() { std::free(msg_); }
  owned_msg(const owned_msg&) = delete;
  owned_msg& operator=(const owned_msg&) = delete;
  wex_inner_msg* get() const noexcept { return msg_; }
  wex_inner_msg* release() noexcept { return std::exchange(msg_, nullptr); }
  // Where a function that makes a block may put it. Only while nothing is owned.
  wex_inner_msg** fill() noexcept { return &msg_; }

 private:
  wex_inner_msg* msg_;
};

extern "C" {

// One whole message, without waiting. 0, or -1 (printed).
int wex_inner_send_msg(int sd, const wex_inner_msg* msg);

// One whole message into a new block that the caller frees. 0, or -1 (printed).
int wex_inner_recv_msg(int sd, wex_inner_msg** out);

// Sends one request, and waits for its acknowledgement when `wait_ack`. 0, or negative; a failed connection
// is 0 when `ignore_connect_fail`, and so is everything while the daemon is marked as gone. Any thread; one
// request per process at a time. A cancelled thread ends behind it.
int wex_rpc(uint32_t msg_type, const char* name, const void* payload, uint32_t payload_len, uint8_t wait_ack,
            uint8_t ignore_connect_fail);
}

// A socket of the kind both ends use, close-on-exec. It takes no descriptors where the kernel can refuse them
// (Linux 6.16), and an accepted one is like the listener. Invalid with errno.
unique_fd wex_open_control_socket();

// Fills a local address and tells the length to bind or connect with: no terminator is counted, as every
// program of the device has it.
socklen_t wex_control_address(const char* path, sockaddr_un* address);

// Repeats a request up to 30 times, one second after each negative result (errno as that request left it).
// The last result.
int wex_rpc_persist(uint32_t msg_type, const void* payload, uint32_t payload_len);
