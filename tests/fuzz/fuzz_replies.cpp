// The phone-home, token and current-firmware replies: the first byte picks
// the reply and its status, the rest is the body the daemon receives.
#include "fuzz_env.h"

#include "auth.h"
#include "auto-updates.h"
#include "phone-home.h"

const bool fuzz::pick_needs_commands = false;

void fuzz::pick_input(uint8_t choice, const uint8_t *data, size_t size)
{
    int pick = choice % 4;
    fuzz::forget_answers();
    switch (pick) {
    case 0:
        fuzz::answer("/api/phone_home", data, size);
        phone_home_call();
        break;
    case 1:
    case 2: {
        // 200 takes a token, 400 reads a refusal.
        fuzz::answer("/oauth/token", data, size, pick == 1 ? 200 : 400);
        invalidate_access_token();
        char token[ACCESS_TOKEN_SIZE];
        get_access_token(token);
        break;
    }
    default:
        fuzz::answer("/api/current-firmware", data, size);
        check_updates();
        break;
    }
}
