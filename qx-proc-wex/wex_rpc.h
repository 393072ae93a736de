// wex_rpc: framing of control messages, and the client's one connection.
#pragma once

#include "wex.h"

extern "C" {

// One whole message, without waiting. 0, or -1 (printed).
int wex_inner_send_msg(int sd, const wex_inner_msg* msg);

// One whole message into a new block that the caller frees. 0, or -1 (printed).
int wex_inner_recv_msg(int sd, wex_inner_msg** out);

// Sends one request, and waits for its acknowledgement when `wait_ack`. 0, or negative; a failed connection
// is 0 when `ignore_connect_fail`, and so is everything while the daemon is marked as gone. Any thread; one
// request per process at a time.
int wex_rpc(uint32_t msg_type, const char* name, const void* payload, uint32_t payload_len, uint8_t wait_ack,
            uint8_t ignore_connect_fail);
}

// Repeats a request up to 30 times, one second after each negative result. The last result.
int wex_rpc_persist(uint32_t msg_type, const void* payload, uint32_t payload_len);
