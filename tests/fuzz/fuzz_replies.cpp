// The phone-home, token and current-firmware replies: the first byte picks
// the reply and its status, the rest is the body the daemon receives.
#include "fuzz_env.h"

#include "auth.h"
#include "auto-updates.h"
#include "phone-home.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    int pick = data[0] % 4;
    fuzz::forget_answers();
    switch (pick) {
    case 0:
        fuzz::answer("/api/phone_home", data + 1, size - 1);
        phone_home_call();
        break;
    case 1:
    case 2: {
        // 200 takes a token, 400 reads a refusal.
        fuzz::answer("/oauth/token", data + 1, size - 1, pick == 1 ? 200 : 400);
        invalidate_access_token();
        char token[ACCESS_TOKEN_SIZE];
        get_access_token(token);
        break;
    }
    default:
        fuzz::answer("/api/current-firmware", data + 1, size - 1);
        check_updates();
        break;
    }
    return 0;
}
