// The controller's OAuth bearer token, shared by the whole process.
#pragma once

#include <ctime>

constexpr int ACCESS_TOKEN_SIZE = 256;

// Copies the token (or "") into a 256-byte buffer; 1 when a valid token was
// copied, 0 otherwise.
int get_access_token(char *token);
void invalidate_access_token(void);

// The wall clock a token's lifetime is counted on; tests put it anywhere.
extern time_t (*auth_time)(time_t *now);
