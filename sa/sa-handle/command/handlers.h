// The command handlers, one for each form that a row of the command table serves.
//
// All have one signature and run on the command reader thread, one at a time; a handler that blocks, blocks the channel.
//   fd       the channel's master.
//   req_ptr  the request, with its terminator.
//   rsp_ptr  where the handler builds its response.
//   arg      the argument text inside the request, up to the request's end.
// A handler sends its own response and returns the result of sending it, 0, whatever it answered; -101 means that its
// arguments were unusable and nothing was sent. A result other than 0 keeps the request: the next read is appended to it.
#ifndef SA_SA_HANDLE_COMMAND_HANDLERS_H
#define SA_SA_HANDLE_COMMAND_HANDLERS_H

#include <stdint.h>

#include "sa/sa-handle/command/state.h"

/** The type of every handler. */
typedef long (*sa_cmd_handler)(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +START_SERVICE="name": has init start a service and waits up to 8 s for its process. */
long handle_sa_start_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +STOP_SERVICE="name": sends SIGTERM to the service's process and waits up to 10 s for its end. */
long handle_sa_stop_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +QUERY_SERVICE="name": whether a process of that name runs. */
long handle_sa_query_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +AUTO_START_SERVICE="name",action: 0 takes a service off the auto-start list, 1 puts it there, 2 asks. */
long handle_sa_auto_start_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr,
                                      const char *arg);

/** +SAVE_LOG: copies every log and a set of system dumps to the card. Takes minutes. The argument is ignored. */
long handle_sa_save_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +SYSTEM="command": runs a shell command line, up to five times until it succeeds. */
long handle_sa_system_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +KERNEL_LOG=0|1 and +KERNEL_LOG?: the kernel-message switch. */
long handle_sa_kernel_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);
/** The read form of the command above. */
long handle_sa_kernel_log_read(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +DMESG_LOG=0|1 and +DMESG_LOG?: the dmesg switch; switching it on takes a snapshot. */
long handle_sa_dmesg_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);
/** The read form of the command above. */
long handle_sa_dmesg_log_read(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +DATA_PACKETS_LOG=0|1: the packet-capture switch. */
long handle_sa_packets_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

/** +DELETE_LOG: stops the collectors, deletes their files and starts them again. The argument is ignored. */
long handle_sa_delete_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg);

#endif
