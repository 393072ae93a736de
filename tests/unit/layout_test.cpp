// Layouts that other programs read: the same bytes on every architecture and for every compiler.
#include <gtest/gtest.h>

#include <cstddef>

#include "ras_os.h"
#include "wex.h"
#include "wex_limits.h"
#include "wex_sys_alive.h"

namespace {

constexpr size_t kPointer = sizeof(void*);

}  // namespace

TEST(Layout, TheMessageHeaderIs268Bytes) {
  EXPECT_EQ(268u, sizeof(wex_inner_msg));
  EXPECT_EQ(0u, offsetof(wex_inner_msg, msg_type));
  EXPECT_EQ(4u, offsetof(wex_inner_msg, msg_len));
  EXPECT_EQ(8u, offsetof(wex_inner_msg, name));
  EXPECT_EQ(256u, sizeof(wex_inner_msg::name));
  EXPECT_EQ(264u, offsetof(wex_inner_msg, reserved));
  EXPECT_EQ(588u, sizeof(wex_inner_msg) + sizeof(wex_reg_info)) << "the largest message in use";
}

TEST(Layout, TheRegistrationBodyIs320Bytes) {
  EXPECT_EQ(320u, sizeof(wex_reg_info));
  EXPECT_EQ(0u, offsetof(wex_reg_info, pid));
  EXPECT_EQ(4u, offsetof(wex_reg_info, ppid));
  EXPECT_EQ(8u, offsetof(wex_reg_info, vsd));
  EXPECT_EQ(12u, offsetof(wex_reg_info, ntfy_cnt));
  EXPECT_EQ(16u, offsetof(wex_reg_info, cur_cnt));
  EXPECT_EQ(20u, offsetof(wex_reg_info, ntfy_time));
  EXPECT_EQ(24u, offsetof(wex_reg_info, cur_ntfy_time));
  EXPECT_EQ(28u, offsetof(wex_reg_info, restart_delay));
  EXPECT_EQ(32u, offsetof(wex_reg_info, process));
  EXPECT_EQ(288u, offsetof(wex_reg_info, tag));
}

TEST(Layout, TheCancelBodyIs8Bytes) {
  EXPECT_EQ(8u, sizeof(wex_cons_info));
  EXPECT_EQ(0u, offsetof(wex_cons_info, kind));
  EXPECT_EQ(4u, offsetof(wex_cons_info, pid));
}

TEST(Layout, MessageTypesKeepTheirNumbers) {
  EXPECT_EQ(1, WEX_RESTART);
  EXPECT_EQ(2, WEX_SHELL_RESTART);
  EXPECT_EQ(3, WEX_NOTIFIER_START);
  EXPECT_EQ(4, WEX_NOTIFIER_RESET);
  EXPECT_EQ(5, WEX_CONS_MSG);
  EXPECT_EQ(0, WEX_CANCEL_PROC);
  EXPECT_EQ(1, WEX_CANCEL_THREAD_NOTIFY);
  EXPECT_EQ(2, RESPAWN);
  EXPECT_EQ(3, SHELL_RESTART);
}

TEST(Layout, TheRecordsFieldsStandInTheirOrder) {
  EXPECT_EQ(0u, offsetof(wex_pid, pid));
  EXPECT_EQ(12u, offsetof(wex_pid, alarm_wait_flag));
  EXPECT_EQ(16u, offsetof(wex_pid, notify_info));
  EXPECT_EQ(32u, offsetof(wex_pid, alive_seq));
  EXPECT_EQ(36u, offsetof(wex_pid, restart_delay));
  EXPECT_EQ(40u, offsetof(wex_pid, process));
  EXPECT_EQ(4136u, offsetof(wex_pid, action));
  EXPECT_EQ(4140u, offsetof(wex_pid, flags));
  EXPECT_EQ(4144u, offsetof(wex_pid, check_start));
  EXPECT_EQ(4148u, offsetof(wex_pid, check_count));
  EXPECT_EQ(4152u, offsetof(wex_pid, script));
  EXPECT_EQ(4408u, offsetof(wex_pid, hnode));
  EXPECT_EQ(4408u + 4 * kPointer, offsetof(wex_pid, reboot_allow));
  EXPECT_EQ(offsetof(wex_pid, reboot_allow) + 20, offsetof(wex_pid, delay_start));
}

TEST(Layout, TheSharedMemoryHandleIsNameAddressSize) {
  EXPECT_EQ(0u, offsetof(ras_os_record_memory_t, name));
  EXPECT_EQ(kPointer, offsetof(ras_os_record_memory_t, addr));
  EXPECT_EQ(2 * kPointer, offsetof(ras_os_record_memory_t, size));
  EXPECT_EQ(0u, offsetof(wex_alive_info, memory));
  EXPECT_EQ(3 * kPointer, offsetof(wex_alive_info, base));
}

TEST(Layout, TheAliveTableKeepsItsOffsets) {
  EXPECT_EQ(8, WEX_ALIVE_SIZE_OFFSET);
  EXPECT_EQ(32, WEX_ALIVE_BITMAP_OFFSET);
  EXPECT_EQ(20481, WEX_ALIVE_BITMAP_BYTES);
  EXPECT_EQ(20513, WEX_ALIVE_SEQ_OFFSET);
  EXPECT_EQ(163840, WEX_ALIVE_SEQ_BYTES);
  EXPECT_EQ(184356u, kAliveTableSize);
}

TEST(Layout, TheSystemSemaphoreKeepsItsKey) {
  EXPECT_STREQ("/tmp/.wex_semphore_path", WEX_SEM_KEY_FILE);
  EXPECT_EQ(1, WEX_SEM_PROJECT);
}
