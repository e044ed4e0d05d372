#include "debug.h"
#include "log.h"
#include "testkit.h"
#include "utils.h"
#include "work.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <pthread.h>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace testkit;

// The failure path of calloc_with_error needs an allocation that fails
// instead of aborting under the address or the thread sanitizer.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" const char *__tsan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace
{

class UtilsTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override { log_init(); }
    std::vector<std::string> messages() const { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line) const { return testkit::logged(root, line); }
    // A tool in the device root's /bin, found first through PATH.
    void tool(const std::string &name, const std::string &script) const
    {
        std::string path = root.at("/bin/" + name);
        write_file(path, "#!/bin/sh\n" + script);
        chmod(path.c_str(), 0755);
    }
};

std::string b64(const std::string &in)
{
    int n = static_cast<int>(in.size());
    char *out = base64_encode(in.data(), &n);
    std::string s = out == nullptr ? "<null>" : out;
    free(out);
    return s;
}

// The table built the textbook way (MSB first, polynomial 0xA097), then the
// byte XORed in after the table step.
uint16_t reference_crc(const std::string &payload)
{
    uint16_t table[256];
    for (unsigned b = 0; b < 256; b++) {
        unsigned c = b << 8;
        for (int k = 0; k < 8; k++)
            c = (c & 0x8000) ? ((c << 1) ^ 0xA097) & 0xFFFF : (c << 1) & 0xFFFF;
        table[b] = static_cast<uint16_t>(c);
    }
    unsigned crc = 0;
    for (unsigned char x : payload)
        crc = ((crc << 8) ^ table[crc >> 8] ^ x) & 0xFFFF;
    return static_cast<uint16_t>(crc);
}

std::string with_crc_high_first(uint16_t crc, const std::string &payload)
{
    std::string s;
    s += static_cast<char>(crc >> 8);
    s += static_cast<char>(crc & 0xFF);
    return s + payload;
}

} // namespace

TEST_F(UtilsTest, JsonStringGetter)
{
    Json o = json_parse(R"({"name":"abcdef","n":5})");
    char buf[8];
    memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(get_json_string_value(o.get(), "name", buf, sizeof(buf)), 1);
    EXPECT_STREQ(buf, "abcdef");

    // A value that fills the buffer is left without a terminator.
    char small[4];
    memset(small, 'x', sizeof(small));
    EXPECT_EQ(get_json_string_value(o.get(), "name", small, sizeof(small)), 1);
    EXPECT_EQ(std::string(small, 4), "abcd");

    EXPECT_EQ(get_json_string_value(o.get(), "missing", buf, sizeof(buf)), -1);
    EXPECT_EQ(get_json_string_value(o.get(), "n", buf, sizeof(buf)), -1);
    EXPECT_TRUE(logged("get_json_string_value: no 'missing' object"));
    EXPECT_TRUE(logged("get_json_string_value: bad 'n' object"));
}

TEST_F(UtilsTest, JsonIntAndBooleanGetters)
{
    Json o = json_parse(R"({"i":4294967297,"s":"7","t":true,"f":false,"z":0})");
    int v = -5;
    EXPECT_EQ(get_json_int_value(o.get(), "i", &v), 1);
    EXPECT_EQ(v, 1); // narrowed to int
    EXPECT_EQ(get_json_int_value(o.get(), "s", &v), -1);
    EXPECT_EQ(get_json_int_value(o.get(), "nope", &v), -1);
    EXPECT_TRUE(logged("get_json_int_value: bad 's' object"));
    EXPECT_TRUE(logged("get_json_int_value: no 'nope' object"));

    v = 7;
    EXPECT_EQ(get_json_boolean_value(o.get(), "t", &v), 1);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(get_json_boolean_value(o.get(), "f", &v), 1);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(get_json_boolean_value(o.get(), "z", &v), -1);
    EXPECT_EQ(get_json_boolean_value(o.get(), "none", &v), -1);
    EXPECT_TRUE(logged("get_json_boolean_value: bad 'z' object"));
    EXPECT_TRUE(logged("get_json_boolean_value: no 'none' object"));
}

TEST_F(UtilsTest, StrdupAndCallocWithError)
{
    EXPECT_EQ(strdup_with_error(nullptr, "x: %s\n", nullptr), nullptr);
    char *s = strdup_with_error("hello", "x: %s\n", nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "hello");
    free(s);

    unsigned char *p = static_cast<unsigned char *>(calloc_with_error(64, "y: %s\n", nullptr));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(p[i], 0);
    free(p);

    // An impossible size takes the failure path.
    char message[32] = "";
    EXPECT_EQ(calloc_with_error(SIZE_MAX, "calloc_test: %s\n", message), nullptr);
    EXPECT_STREQ(message, "Out of memory");
    EXPECT_TRUE(logged("calloc_test: Out of memory"));
}

TEST_F(UtilsTest, StripAndReplaceChar)
{
    char out[32] = "untouched";
    strip_char("a:b:c::", ':', out);
    EXPECT_STREQ(out, "abc");
    strip_char(nullptr, ':', out);
    EXPECT_STREQ(out, "abc");

    char s[] = "a-b-c";
    replace_char(s, '_', '-'); // every '-' becomes '_'
    EXPECT_STREQ(s, "a_b_c");
}

TEST_F(UtilsTest, SysRunsThroughTheShellAndLogs)
{
    int status = _sys("exit %d", 3);
    EXPECT_EQ(status, 3 << 8);
    EXPECT_TRUE(logged("_sys: 'exit 3' (status = 768)"));

    // Device paths in the command land in the device root.
    EXPECT_EQ(_sys("echo hi > %s", "/tmp/sys_out"), 0);
    EXPECT_EQ(read_file(root.at("/tmp/sys_out")), "hi\n");
}

TEST_F(UtilsTest, Base64EncodePadding)
{
    EXPECT_EQ(b64("f"), "Zg==");
    EXPECT_EQ(b64("fo"), "Zm8=");
    EXPECT_EQ(b64("foo"), "Zm9v");
    EXPECT_EQ(b64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(b64(""), "");
    EXPECT_EQ(b64(std::string("\xff\xfe\x00", 3)), "//4A");
    char *s = base64_encode("fooba", nullptr); // string length when ilenp is null
    EXPECT_STREQ(s, "Zm9vYmE=");
    free(s);
}

TEST_F(UtilsTest, Base64Decode)
{
    int olen = -1;
    char *d = base64_decode("Zg==", nullptr, &olen);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(olen, 1);
    EXPECT_STREQ(d, "f");
    free(d);

    d = base64_decode("Zm8=", nullptr, &olen);
    EXPECT_EQ(olen, 2);
    EXPECT_STREQ(d, "fo");
    free(d);

    int ilen = 8;
    d = base64_decode("Zm9vYmFyXXXX", &ilen, &olen);
    EXPECT_EQ(olen, 6);
    EXPECT_STREQ(d, "foobar");
    free(d);

    EXPECT_EQ(base64_decode("Zm9vY", nullptr, &olen), nullptr);

    d = base64_decode("", nullptr, &olen);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(olen, 0);
    EXPECT_STREQ(d, "");
    free(d);

    // No validation: characters outside the alphabet count as 0.
    d = base64_decode("!!!!", nullptr, &olen);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(olen, 3);
    EXPECT_EQ(std::string(d, 3), std::string("\0\0\0", 3));
    free(d);

    // Binary round trip.
    std::string bin;
    for (int i = 0; i < 256; i++)
        bin += static_cast<char>(i);
    std::string enc = b64(bin);
    d = base64_decode(enc.c_str(), nullptr, &olen);
    ASSERT_EQ(olen, 256);
    EXPECT_EQ(std::string(d, olen), bin);
    free(d);
}

TEST_F(UtilsTest, Base64DecodeTracesWhenDebugging)
{
    debug = 1;
    char *d = base64_decode("Zm8=", nullptr, nullptr);
    free(d);
    debug = 0;
    EXPECT_TRUE(logged("base64_decode ilen = 4, 'Zm8='"));
}

TEST_F(UtilsTest, Base64SelfTestPrintsTheSample)
{
    testing::internal::CaptureStdout();
    base64_test();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back(), '\n');
    // 22 bytes, each as "0x%02x ".
    EXPECT_EQ(out.size(), 22u * 5 + 1);
    EXPECT_EQ(out.rfind("0x", 0), 0u);
}

TEST_F(UtilsTest, InList)
{
    EXPECT_EQ(in_list(5, "1-3,7"), -1);
    EXPECT_EQ(in_list(9, "1-3,7"), 1);
    EXPECT_EQ(in_list(2, "1-3,7"), 0);
    EXPECT_EQ(in_list(7, "1-3,7"), 0);
    EXPECT_EQ(in_list(0, "0,2"), 0);
    EXPECT_EQ(in_list(1, "0,2"), -1);
    EXPECT_EQ(in_list(3, "0,2"), 1);
    // Not starting with a digit: nothing matches.
    EXPECT_EQ(in_list(0, "x"), 1);
    EXPECT_EQ(in_list(4, ""), 1);
    EXPECT_EQ(in_list(-1, ""), -1);
    // A range without an end matches nothing.
    EXPECT_NE(in_list(3, "3-"), 0);
    EXPECT_NE(in_list(4, "3-"), 0);
}

TEST_F(UtilsTest, NextInListStopsAtTwo)
{
    EXPECT_EQ(next_in_list(-1, "1-3,7"), 1);
    EXPECT_EQ(next_in_list(1, "1-3,7"), 2);
    EXPECT_EQ(next_in_list(2, "1-3,7"), -1); // 3 and 7 lie beyond the ceiling
    EXPECT_EQ(next_in_list(2, "0-9"), -1);
    EXPECT_EQ(next_in_list(-1, "0,2"), 0);
    EXPECT_EQ(next_in_list(0, "0,2"), 2);
    EXPECT_EQ(next_in_list(-1, ""), -1);
}

TEST_F(UtilsTest, Bitmaps)
{
    unsigned char bm[2] = {0, 0};
    EXPECT_EQ(bitmap_set(bm, 9, 16), 0);
    EXPECT_EQ(bm[1], 0x02);
    EXPECT_NE(bitmap_is_set(bm, 9, 16), 0);
    EXPECT_EQ(bitmap_is_set(bm, 8, 16), 0);
    EXPECT_EQ(bitmap_is_set(bm, 9, 9), 0); // not below size
    EXPECT_EQ(bitmap_is_set(bm, -1, 16), 0);
    EXPECT_EQ(bitmap_set(bm, 16, 16), -1);
    EXPECT_EQ(bitmap_set(bm, -1, 16), -1);
    EXPECT_EQ(bitmap_clear(bm, 9, 16), 0);
    EXPECT_EQ(bm[1], 0);
    EXPECT_EQ(bitmap_clear(bm, 20, 16), -1);
}

TEST_F(UtilsTest, BitmapIflistStopsAtTheFirstIndexOutOfRange)
{
    unsigned char bm[1] = {0};
    EXPECT_EQ(bitmap_set_iflist(bm, "0-2", 2), -1);
    EXPECT_EQ(bm[0], 0x03); // bits 0 and 1 stay set

    unsigned char all[1] = {0xFF};
    EXPECT_EQ(bitmap_clear_iflist(all, "0,2", 8), 0);
    EXPECT_EQ(all[0], 0xFA);
    EXPECT_EQ(bitmap_clear_iflist(all, "", 8), 0);
    EXPECT_EQ(bitmap_set_iflist(all, "", 8), 0);
    EXPECT_EQ(all[0], 0xFA);
}

TEST_F(UtilsTest, BitmapHex)
{
    unsigned char bm[3] = {0x0A, 0xF0, 0x5C};
    char hex[7];
    bitmap_to_hex(bm, hex, 3);
    EXPECT_STREQ(hex, "0AF05C");

    unsigned char back[3] = {0, 0, 0};
    bitmap_from_hex(back, "0AF05C", 3);
    EXPECT_EQ(memcmp(back, bm, 3), 0);

    // Lower case is not understood: 'a' counts as 97 - 55 = 42.
    unsigned char odd[1];
    bitmap_from_hex(odd, "0a", 1);
    EXPECT_EQ(odd[0], 42);
}

TEST_F(UtilsTest, HexlogAscii)
{
    std::string data = "ABCDEFGHIJKLMNOP\x01"
                       "z";
    hexlog_ascii(orkad_log, "frame", data.data(), data.size());
    auto msgs = messages();
    ASSERT_GE(msgs.size(), 4u);
    size_t n = msgs.size();
    EXPECT_EQ(msgs[n - 3], "frame - (data len=18):");
    EXPECT_EQ(msgs[n - 2],
              "     41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50   ABCDEFGHIJKLMNOP");
    EXPECT_EQ(msgs[n - 1], std::string("     01 7a") + std::string(14 * 3, ' ') + "   *z");
}

TEST_F(UtilsTest, TimezoneFromTheDeviceTzFile)
{
    write_file(root.at("/tmp/TZ"), "CET-1\n");
    char zone[32] = "";
    int offset = 12345;
    EXPECT_EQ(get_timezone(zone, &offset), 0);
    EXPECT_EQ(offset, 60);
    EXPECT_STREQ(zone, "CET");
}

TEST_F(UtilsTest, TimezoneNegativeOffsetTruncates)
{
    write_file(root.at("/tmp/TZ"), "X\n");
    tool("date", "echo '-0930 X'\n");
    char zone[32] = "";
    int offset = 0;
    debug = 1;
    EXPECT_EQ(get_timezone(zone, &offset), 0);
    debug = 0;
    EXPECT_EQ(offset, -570);
    EXPECT_STREQ(zone, "X");
    EXPECT_TRUE(logged("n = 2, zone = 'X', hm = -930"));

    tool("date", "echo '-0530 IST'\n");
    EXPECT_EQ(get_timezone(zone, &offset), 0);
    EXPECT_EQ(offset, -330);
}

TEST_F(UtilsTest, TimezoneReadsTheTzFileThroughTheShell)
{
    write_file(root.at("/tmp/TZ"), "Pacific/Zone\n");
    tool("date", "echo \"+0100 $TZ\"\n");
    char zone[32] = "";
    int offset = 0;
    EXPECT_EQ(get_timezone(zone, &offset), 0);
    EXPECT_STREQ(zone, "Pacific/Zone");
}

TEST_F(UtilsTest, TimezoneNameLongerThanTheBufferIsCut)
{
    write_file(root.at("/tmp/TZ"), "X\n");
    std::string name(100, 'Z');
    tool("date", "echo '+0200 " + name + "'\n");
    struct {
        char zone[32];
        char after[32];
    } b;
    memset(&b, 0, sizeof(b));
    memset(b.after, 'g', sizeof(b.after) - 1);
    int offset = 0;
    EXPECT_EQ(get_timezone(b.zone, &offset), 0);
    EXPECT_EQ(offset, 120);
    EXPECT_EQ(std::string(b.zone), std::string(31, 'Z'));
    // Nothing written past the 32 bytes.
    EXPECT_EQ(std::string(b.after), std::string(31, 'g'));
}

TEST_F(UtilsTest, TimezoneNeedsBothFields)
{
    write_file(root.at("/tmp/TZ"), "X\n");
    tool("date", "echo '+0100'\n");
    char zone[32] = "";
    int offset = 777;
    EXPECT_EQ(get_timezone(zone, &offset), -1);
    EXPECT_EQ(offset, 777);
}

TEST_F(UtilsTest, Tvdiff)
{
    struct timespec t, a, b;
    a = {10, 900};
    b = {10, 100};
    tvdiff(&t, &a, &b);
    EXPECT_EQ(t.tv_sec, 0);
    EXPECT_EQ(t.tv_nsec, -800);

    a = {10, 900000000};
    b = {12, 100000000};
    tvdiff(&t, &a, &b);
    EXPECT_EQ(t.tv_sec, 1);
    EXPECT_EQ(t.tv_nsec, 200000000);

    a = {12, 100000000};
    b = {10, 900000000};
    tvdiff(&t, &a, &b);
    EXPECT_EQ(t.tv_sec, -1);
    EXPECT_EQ(t.tv_nsec, -200000000);
}

TEST_F(UtilsTest, StkCrcByHand)
{
    // One byte: crc = x. Three bytes 01 00 00: crc = table[1] = the polynomial.
    write_file(root.at("/tmp/one.stk"), std::string("\x00\x41\x41", 3));
    EXPECT_EQ(stk_crc_check("/tmp/one.stk"), 1);
    EXPECT_TRUE(logged("stk_crc_check: crc_net = 4100, file_crc = 4100"));

    write_file(root.at("/tmp/poly.stk"), std::string("\xA0\x97\x01\x00\x00", 5));
    EXPECT_EQ(stk_crc_check("/tmp/poly.stk"), 1);

    // Stored low byte first is wrong.
    write_file(root.at("/tmp/swapped.stk"), std::string("\x97\xA0\x01\x00\x00", 5));
    EXPECT_EQ(stk_crc_check("/tmp/swapped.stk"), 0);
    EXPECT_TRUE(logged("stk_crc_check: crc_net = 97A0, file_crc = A097"));
}

// The first checks of an agent's life may run on two threads at once (an
// update from the command runner, one from the retry thread).
TEST_F(UtilsTest, StkCrcFromSeveralThreadsAtOnce)
{
    std::string payload;
    for (int i = 0; i < 3000; i++)
        payload += static_cast<char>((i * 13 + 5) & 0xFF);
    write_file(root.at("/tmp/good.stk"), with_crc_high_first(reference_crc(payload), payload));
    write_file(root.at("/tmp/bad.stk"),
               with_crc_high_first(static_cast<uint16_t>(reference_crc(payload) ^ 1), payload));
    std::vector<std::thread> checkers;
    int good[4] = {}, bad[4] = {};
    for (int t = 0; t < 4; t++)
        checkers.emplace_back([t, &good, &bad] {
            for (int k = 0; k < 5; k++) {
                good[t] += stk_crc_check("/tmp/good.stk");
                bad[t] += stk_crc_check("/tmp/bad.stk");
            }
        });
    for (auto &c : checkers)
        c.join();
    for (int t = 0; t < 4; t++) {
        EXPECT_EQ(good[t], 5) << t;
        EXPECT_EQ(bad[t], 0) << t;
    }
}

TEST_F(UtilsTest, StkCrcOverSeveralBlocks)
{
    std::string payload;
    for (int i = 0; i < 5000; i++)
        payload += static_cast<char>((i * 7 + 3) & 0xFF);
    uint16_t crc = reference_crc(payload);
    write_file(root.at("/tmp/big.stk"), with_crc_high_first(crc, payload));
    EXPECT_EQ(stk_crc_check("/tmp/big.stk"), 1);

    payload[3000] ^= 1;
    write_file(root.at("/tmp/bad.stk"), with_crc_high_first(crc, payload));
    EXPECT_EQ(stk_crc_check("/tmp/bad.stk"), 0);
}

TEST_F(UtilsTest, StkCrcFileProblems)
{
    EXPECT_EQ(stk_crc_check("/tmp/absent.stk"), 0);
    EXPECT_TRUE(logged("stk_crc_check: can't open file: /tmp/absent.stk"));
    write_file(root.at("/tmp/short.stk"), "x");
    EXPECT_EQ(stk_crc_check("/tmp/short.stk"), 0);
    EXPECT_TRUE(logged("stk_crc_check: can't read file crc (rc = 1)."));
}

// ---- nesting depth of JSON texts -----------------------------------------

namespace
{

std::string nested(int levels, char open = '[', char close = ']')
{
    return std::string(levels, open) + std::string(levels, close);
}

} // namespace

TEST_F(UtilsTest, JsonDepthCountsArraysAndObjectsOutsideStrings)
{
    auto depth = [](const std::string &s, int max = 100) {
        return json_depth(s.data(), s.size(), max);
    };
    EXPECT_EQ(depth(""), 0);
    EXPECT_EQ(depth("42"), 0);
    EXPECT_EQ(depth("{}"), 1);
    EXPECT_EQ(depth(R"({"a":[1,{"b":[]}],"c":{}})"), 4);
    // Brackets inside strings, escaped quotes included, are text.
    EXPECT_EQ(depth(R"({"a":"[[[{{{"})"), 1);
    EXPECT_EQ(depth(R"({"a":"\"[[[","b":[]})"), 2);
    EXPECT_EQ(depth(R"(["\\",[]])"), 2);
    // Siblings do not add up; unbalanced closers never go below zero.
    EXPECT_EQ(depth("[[],[],[]]"), 2);
    EXPECT_EQ(depth("]]]][[]"), 2);
    // Counting stops once the limit is passed.
    EXPECT_EQ(depth(nested(5000), 64), 65);
    EXPECT_EQ(depth(nested(64), 64), 64);
}

TEST_F(UtilsTest, BoundedLoadRefusesOnlyTextsDeeperThanTheLimit)
{
    json_error_t err;
    std::string ok = nested(JSON_MAX_DEPTH);
    json_t *j = json_loadb_bounded(ok.data(), ok.size(), 0, &err);
    ASSERT_NE(j, nullptr);
    json_decref(j);

    for (std::string deep : {nested(JSON_MAX_DEPTH + 1), nested(JSON_MAX_DEPTH + 1, '{', '}'),
                             nested(5000), std::string(100000, '[')}) {
        memset(&err, 'x', sizeof(err));
        EXPECT_EQ(json_loadb_bounded(deep.data(), deep.size(), 0, &err), nullptr);
        EXPECT_STREQ(err.text, "maximum parsing depth reached");
        EXPECT_STREQ(err.source, "<buffer>");
    }
    // Not JSON at all still gets the parser's own words.
    json_error_t plain;
    EXPECT_EQ(json_loadb_bounded("{\"a\":", 5, 0, &err), nullptr);
    EXPECT_EQ(json_loadb("{\"a\":", 5, 0, &plain), nullptr);
    EXPECT_STREQ(err.text, plain.text);
    // A null error record is allowed, as with jansson.
    std::string deep = nested(1000);
    EXPECT_EQ(json_loadb_bounded(deep.data(), deep.size(), 0, nullptr), nullptr);
}

// What the bound is for: the deepest text it lets through parses on a
// thread with the daemon's stack, with most of that stack left over.
TEST_F(UtilsTest, DeepestAcceptedTextParsesOnADaemonSizedStack)
{
    struct job {
        std::string text;
        bool parsed = false;
    } jb;
    jb.text = "{\"a\":" + nested(JSON_MAX_DEPTH - 1) + "}";
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // A quarter of the daemon's stack: the bound leaves that much margin.
    pthread_attr_setstacksize(&attr, THREAD_STACK_SIZE / 4);
    pthread_t t;
    ASSERT_EQ(pthread_create(
                  &t, &attr,
                  [](void *p) -> void * {
                      job *jp = static_cast<job *>(p);
                      json_error_t e;
                      json_t *v = json_loadb_bounded(jp->text.data(), jp->text.size(), 0, &e);
                      jp->parsed = v != nullptr;
                      json_decref(v);
                      return nullptr;
                  },
                  &jb),
              0);
    pthread_join(t, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(jb.parsed);
}

namespace
{

std::string shown(const std::string &text)
{
    loggable_json j(text.data(), text.size());
    return std::string(j.data(), (size_t)j.length());
}

} // namespace

TEST(LoggableJson, HidesEveryPasswordValueWhereverItSits)
{
    EXPECT_EQ(
        shown(
            R"({"totalCount":1,"responseLink":{"href":"/r"},"commandList":[{"action":"set",)"
            R"("context":"system","id":"s1","params":{"location":"lab","password":"s3cr\"et"}}]})"),
        R"({"totalCount":1,"responseLink":{"href":"/r"},"commandList":[{"action":"set",)"
        R"("context":"system","id":"s1","params":{"location":"lab","password":"********"}}]})");
    // Spaces around the colon, two of them, an escaped name, an empty one.
    EXPECT_EQ(shown("[{\"password\" :\n \"a\"}, {\"pass\\u0077ord\": \"b\\\\\"}, "
                    "{\"password\":\"\"}]"),
              "[{\"password\" :\n \"********\"}, {\"pass\\u0077ord\": \"********\"}, "
              "{\"password\":\"********\"}]");
}

TEST(LoggableJson, LeavesEverythingElseAsItCame)
{
    const std::string texts[] = {
        // The word as a value, inside another text, or as part of a name.
        R"({"name":"password","note":"\"password\":\"x\"","password2":"y","Password":"z"})",
        // Not a text: nothing the switch would take.
        R"({"password":5})",
        "",
        "not json at all",
    };
    for (const auto &t : texts) {
        loggable_json j(t.data(), t.size());
        EXPECT_EQ(j.data(), t.data()) << t;
        EXPECT_EQ(j.length(), (int)t.size()) << t;
    }
}

TEST(LoggableJson, AValueCutOffIsHiddenToo)
{
    EXPECT_EQ(shown(R"({"a":"b","password":"s3cr)"), R"({"a":"b","password":"********)");
    // A name cut off before its value shows what there is.
    EXPECT_EQ(shown(R"({"password")"), R"({"password")");
    EXPECT_EQ(shown(R"({"password":)"), R"({"password":)");
}
