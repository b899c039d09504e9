/* Client library for the zor_play control socket.
 *
 * A client binds the one reply path the server answers to, sends requests to
 * the server's socket and waits for the answer with the same nID. Progress and
 * completion messages that the server sends on its own are handed to a
 * callback, or kept for zpc_poll. Every call returns an int: 0 to 34 are the
 * server's result codes (enumZorPlayResult, texts in g_ResultStrings), the
 * negative ZPC_ERR_ codes are failures on the client's side.
 *
 * Only one process at a time can hold the reply path, so only one client at a
 * time hears the server. A client is used by one thread at a time; nothing is
 * allocated per message. Requires C11 or C++.
 */
#ifndef ZOR_PLAY_CLIENT_H
#define ZOR_PLAY_CLIENT_H

#include "zor_play_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZPC_SERVER_PATH "/tmp/recorder_unix_socket_server"
#define ZPC_REPLY_PATH "/tmp/recorder_unix_socket_client"
#define ZPC_DEFAULT_TIMEOUT_MS 10000

/* Failures on the client's side. After ZPC_ERR_NO_SERVER, ZPC_ERR_PATH_HELD
 * and ZPC_ERR_SYSTEM, errno holds the system's reason. */
enum {
    ZPC_ERR_ARGUMENT = -100,  /* a bad argument: nothing was sent */
    ZPC_ERR_NO_SERVER = -101, /* no server socket, or it refuses us */
    ZPC_ERR_PATH_HELD = -102, /* another live process holds the reply path */
    ZPC_ERR_TIMEOUT = -103,   /* no answer or message within the timeout */
    ZPC_ERR_SYSTEM = -104     /* a system call failed */
};

typedef struct zpc_client zpc_client;

/* Called with each unrequested message (eCmd 9 progress, 10 completion) on
 * the thread that is inside zpc_request or zpc_poll. Requests and polls made
 * from inside it are refused with ZPC_ERR_ARGUMENT; it must not close the
 * client. */
typedef void (*zpc_message_fn)(const structZorPlayMsg* msg, void* user);

/* Binds the reply path. A file left there by a process that has gone is
 * removed; one held by a live process is left alone (ZPC_ERR_PATH_HELD). */
int zpc_open(zpc_client** client);
/* Closes the socket and removes the reply path when it is still this one's. */
void zpc_close(zpc_client* client);

/* How long a request waits for its answer; negative: for ever. */
void zpc_set_timeout(zpc_client* client, int timeout_ms);
/* With a callback, unrequested messages go to it and are no longer kept. */
void zpc_set_message_callback(zpc_client* client, zpc_message_fn fn, void* user);
/* The next unrequested message: the oldest kept one, else the next to arrive
 * within timeout_ms (negative: no limit). With a callback set, the message
 * goes to the callback as well; msg may then be NULL. 0 or ZPC_ERR_TIMEOUT. */
int zpc_poll(zpc_client* client, structZorPlayMsg* msg, int timeout_ms);
/* Unrequested messages dropped because the client kept too many unread. */
unsigned zpc_dropped(const zpc_client* client);
/* The socket's descriptor, to wait on beside others (readable: call zpc_poll). */
int zpc_fd(const zpc_client* client);

/* Sends msg as a request (its nID is set here; nVersion, nLength and nReq
 * too) and waits for the answer, which replaces msg. The result code. */
int zpc_request(zpc_client* client, structZorPlayMsg* msg);

/* 1 when a server is bound at ZPC_SERVER_PATH (it is then ready for
 * requests), 0 otherwise. Sends nothing and needs no client. */
int zpc_server_running(void);

/* Text of a result code or of a ZPC_ERR_ code. */
const char* zpc_result_text(int code);
/* Name of a module state as progress messages carry it (nState). */
const char* zpc_state_name(int state);

/* One call per command. type is eZorPlayRecorder or eZorPlayPlayer. */
int zpc_hello(zpc_client* client, int print_table);
int zpc_create(zpc_client* client, enumZorPlayType type, int slot, int channels, int offset);
int zpc_delete(zpc_client* client, enumZorPlayType type, int slot);
int zpc_delete_all(zpc_client* client, enumZorPlayType type);
int zpc_start(zpc_client* client, enumZorPlayType type, int slot);
int zpc_stop(zpc_client* client, enumZorPlayType type, int slot);
int zpc_pause(zpc_client* client, enumZorPlayType type, int slot);
int zpc_fast_forward(zpc_client* client, enumZorPlayType type, int slot);
int zpc_rewind(zpc_client* client, enumZorPlayType type, int slot);
int zpc_query_status(zpc_client* client, enumZorPlayType type, int slot);
int zpc_exit(zpc_client* client);

/* Players. */
int zpc_setup_play_file(zpc_client* client, int slot, const char* path, int secondary);
int zpc_setup_playlist(zpc_client* client, int slot, const char* path);
int zpc_seek(zpc_client* client, int slot, int seconds);
/* relative: skip n entries from the current one; otherwise go to entry n. */
int zpc_skip(zpc_client* client, int slot, int relative, int n);

/* Recorders. rate_hz 48000 (or 0), 24000, 16000 or 12000; bits 16 (or 0), 24
 * or 8; seconds 0 for no length limit; roll: go on into the names given by
 * zpc_setup_record_next when a file reaches its length. */
typedef struct zpc_record_format {
    int mono; /* one single-channel file per channel, each with its own name */
    unsigned rate_hz;
    unsigned bits;
    unsigned seconds;
    int roll;
} zpc_record_format;
int zpc_setup_record(zpc_client* client, int slot, const zpc_record_format* format, const char* const* names,
                     int count);
/* Names for the next roll-over; seconds is the next files' length. */
int zpc_setup_record_next(zpc_client* client, int slot, unsigned seconds, const char* const* names, int count);

#ifdef __cplusplus
}
#endif

#endif
