// Base64 decoding, as "set.sslVpn" uses it on the controller's text, and the
// round trip of what it gives back through the encoder.
#include "utils.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in(reinterpret_cast<const char *>(data), size);
    int ilen = static_cast<int>(size);
    int olen = -1;
    char *out = base64_decode(in.data(), &ilen, &olen);
    if (out == nullptr)
        return 0;
    if (olen < 0 || out[olen] != '\0')
        __builtin_trap();
    char *again = base64_encode(out, &olen);
    if (again == nullptr || strlen(again) != static_cast<size_t>((olen + 2) / 3 * 4))
        __builtin_trap();
    free(again);
    free(out);
    return 0;
}
