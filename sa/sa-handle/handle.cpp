// Initialisation and teardown of the command and log layer: their order, and nothing else.
#include "sa/sa-handle/handle.h"

#include <string.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/sa-cfg/sa_cfg.h"
#include "sa/sa-handle/collect/log_directory.h"
#include "sa/sa-handle/collect/log_start.h"
#include "sa/sa-handle/command/auto_start.h"
#include "sa/sa-handle/command/channel.h"
#include "sa/sa-handle/command/reader.h"
#include "sa/sa-handle/command/state.h"
#include "sa/sa-handle/panic.h"

static_assert(sizeof(m_sa_handle.pty.m_pts_mapping_name_a) == sizeof(g_sa_cfg.tty_cmd_a),
              "a configured name always fits");

long sa_handle_init(void) {
    sa_log_entry();
    auto_start_service_list_read();
    auto_start_service_list_run();

    memset(&m_sa_handle, 0, sizeof(m_sa_handle));
    sa_channel_prepare(g_sa_cfg.tty_cmd_a);
    sa_log("m_pts_mapping_name_a[%s]", g_sa_cfg.tty_cmd_a);
    if (sa_is_can_start_log_service() == 0) {
        start_log_service();  // collectors that fail to start do not stop the agent
    }

    long ret_val = pub_util_create_thread(&m_sa_handle.m_read_cmd_thread_id, sa_handle_read_cmd_loop, nullptr);
    sa_log("m_read_cmd_thread_id[%lu] ret_val[%ld]", m_sa_handle.m_read_cmd_thread_id.thread, ret_val);
    if (ret_val == 0) {
        sa_save_panic_records();
    } else {
        sa_log_error(SA_ERR_SYSTEM);
        sa_log_platform("pthread_create() fail: %ld", ret_val);
        ret_val = SA_ERR_SYSTEM;
    }

    // Debug builds of the platform rely on these. The results are ignored.
    sa_system("touch /data/local.prop");
    sa_system("chmod 666 /data/local.prop");
    sa_system("mount -o remount,rw /dev/block/mtdblock11");
    sa_log_platform("%s exit", __func__);
    sa_log_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

long sa_handle_deinit(void) {
    sa_log_entry();
    const long ret_val = sa_channel_retire();
    sa_log_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

void sa_handle_resume(void) {
    sa_channel_resume();
}
