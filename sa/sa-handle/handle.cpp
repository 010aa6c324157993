// Initialisation and teardown of the command and log layer: their order, and nothing else.
#include "sa/sa-handle/handle.h"

#include <string.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/sa-cfg/sa_cfg.h"
#include "sa/sa-handle/auto_start.h"
#include "sa/sa-handle/log_start.h"
#include "sa/sa-handle/log_svc.h"
#include "sa/sa-handle/panic.h"
#include "sa/sa-handle/reader.h"
#include "sa/sa-handle/shell.h"
#include "sa/sa-handle/state.h"

static void prepare_state(const char *function) {
    struct pub_pty_st *pty_ptr = &m_sa_handle.pty;
    static_assert(sizeof(pty_ptr->m_pts_mapping_name_a) == sizeof(sa_cfg_st.tty_cmd_a),
                  "a configured name always fits");
    memset(&m_sa_handle, 0, sizeof(m_sa_handle));
    memcpy(pty_ptr->m_pts_mapping_name_a, sa_cfg_st.tty_cmd_a, sizeof(pty_ptr->m_pts_mapping_name_a) - 1);
    sa_log_as(function, "m_pts_mapping_name_a[%s]", pty_ptr->m_pts_mapping_name_a);
}

static long start_reader(const char *function) {
    const long ret_val = pub_util_create_thread(&m_sa_handle.m_read_cmd_thread_id, sa_handle_read_cmd_loop, nullptr);
    sa_log_as(function, "m_read_cmd_thread_id[%lu] ret_val[%ld]", m_sa_handle.m_read_cmd_thread_id, ret_val);
    if (ret_val == 0) {
        return 0;
    }
    sa_log_error_as(function, SA_ERR_SYSTEM);
    sa_log_platform("pthread_create() fail: %ld", ret_val);
    return SA_ERR_SYSTEM;
}

// What debug builds of the platform expect of the agent; nobody looks at the results.
static void prepare_local_properties(void) {
    sa_run_unchecked("touch /data/local.prop");
    sa_run_unchecked("chmod 666 /data/local.prop");
    sa_run_unchecked("mount -o remount,rw /dev/block/mtdblock11");
}

long sa_handle_init(void) {
    sa_log_entry();
    auto_start_service_list_read();
    auto_start_service_list_run();
    prepare_state(__func__);
    if (sa_is_can_start_log_service() == 0) {
        start_log_service();  // collectors that fail to start do not stop the agent
    }
    const long ret_val = start_reader(__func__);
    if (ret_val == 0) {
        sa_save_panic_records();
    }
    prepare_local_properties();
    sa_log_platform("%s exit", __func__);
    sa_log_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}

long sa_handle_deinit(void) {
    sa_log_entry();
    sigset_t mask;
    (void)sa_channel_hold(&mask);
    sa_channel_park();
    const long ret_val = pub_pty_close(&m_sa_handle.pty);
    sa_channel_retire();
    sa_channel_release(&mask);
    sa_log_file("exit ret_val[%ld]", ret_val);
    return ret_val;
}
