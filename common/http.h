// The agent's only HTTP client: blocking GET/POST/PUT, file transfers, the
// pool of reply buffers and the per-command status record.
#pragma once

#include "queue.h"

#define REPLY_POOL_SIZE 32
#define REPLY_BUFFER_SIZE 1500
// The ceiling of one GET, POST or PUT, connecting included.
#define HTTP_TIMEOUT_SECONDS 30

typedef struct reply {
    link_t link;
    int length; // body bytes held; the body is not NUL-terminated
    char *data; // the inline buffer while the body fits, else a heap block
    int size;   // capacity of data
    char buffer[REPLY_BUFFER_SIZE];
} reply;

extern queue_t *free_replies;

void http_init(void);
reply *alloc_reply(void);
void free_reply(reply *r);
char *get_cloud_controller(void);

// 0 for a 2xx status, the status otherwise, 1 when no handle could be made,
// 2 when the transfer failed.
int http_get(const char *url, const char *const *headers, reply *r);
int http_post(const char *url, const char *data, int length, const char *const *headers, reply *r);
int http_put(const char *url, const char *data, int length, const char *const *headers, reply *r);
int http_download_file(const char *url, const char *path);
int http_upload_file(const char *url, const char *path, const char *const *headers);
int http_upload_file_multipart(const char *url, const char *path, const char *const *headers);

int send_command_status(const char *path, const char *commandId, int code, const char *message,
                        const char *data);
void http_debug(int sig);

// When set, takes the place of the transfer in http_get, http_post and
// http_put: it fills r and returns what the request would have. The fuzz
// targets hand replies to the daemon in-process this way.
extern int (*http_exchange)(const char *url, const char *data, int length, reply *r);
// The receive callback, shared with tests.
size_t ReceiveFn(void *ptr, size_t size, size_t nmemb, void *userp);
