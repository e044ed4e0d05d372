// get.diagnostics against the lab controller: the switch's support file, the
// device's dump script, gzip and the multipart upload with its one header,
// and every answer.
#include "agent_fixture.h"
#include "auth.h"
#include "diags.h"
#include "lsql.h"
#include "utils.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace agent_test;

namespace
{

const char dump_line[] = "_sys: '/usr/sbin/varnex-diagnostic-dump > /dev/null 2>&1' (status = 0)";
const char gzip_line[] = "_sys: '/bin/gzip -9 /tmp/diagnostics.tar > /dev/null 2>&1' (status = 0)";

class DiagsLabTest : public AgentLabTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        lab->add_link("/response/d", "response");
        lab->add_link("/diags/upload", "diagnostics");
        use_controller();
    }

    void run(const std::string &command)
    {
        run_handler(cmd_get_diagnostics, "get.diagnostics", command, "/response/d");
    }
    void get_diags(const std::string &id, const std::string &href = "/diags/upload")
    {
        run(R"({"action":"get","context":"diagnostics","id":")" + id +
            R"(","params":{"serviceLink":{"href":")" + href + "\"}}}");
    }
    Answer result_of(const std::string &id) { return answer_for(id); }
    Answer only_result() { return answer_for(""); }

    bool collected_anything()
    {
        auto log = main_log();
        return !journal_lines_of(root, "rpcclt_openapiSupportFileGenerate").empty() ||
               std::any_of(log.begin(), log.end(), [](const std::string &l) {
                   return l.find("varnex-diagnostic-dump") != std::string::npos;
               });
    }

    // The archive kept by the lab, unpacked into a folder of its own; the
    // folder's path.
    std::string unpack(const Json &archive, const std::string &name)
    {
        std::string b64 = json_str(archive.get(), "data_base64");
        int n = (int)b64.size(), len = 0;
        char *raw = base64_decode(b64.c_str(), &n, &len);
        EXPECT_NE(raw, nullptr);
        // Inside this test's own root: tests running side by side unpack
        // archives of the same name.
        std::string dir = root.at("/unpacked-" + name);
        write_file(dir + ".tar.gz", std::string(raw, (size_t)len));
        free(raw);
        std::string cmd =
            "mkdir -p '" + dir + "' && tar -xzf '" + dir + ".tar.gz' -C '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
        return dir;
    }
    Json archive(long long seq)
    {
        return lab->call("GET", "/archive", "", {{"seq", std::to_string(seq)}});
    }
    Json archives()
    {
        return Json(json_incref(json_object_get(lab->call("GET", "/archives").get(), "archives")));
    }

    void replace_tool(const std::string &device_path, const std::string &script)
    {
        std::string p = root.at(device_path);
        unlink(p.c_str());
        write_file(p, script);
        chmod(p.c_str(), 0755);
    }
};

} // namespace

TEST_F(DiagsLabTest, InitRegistersTheCommand)
{
    diags_init();
    EXPECT_TRUE(logged("registered 'get.diagnostics' command handler"));
}

TEST_F(DiagsLabTest, CollectsCompressesAndUploadsTheArchive)
{
    ASSERT_EQ(platform_set_system("password", "it's-s3cret"), 0);
    get_diags("dg-1");
    auto r = result_of("dg-1");
    EXPECT_EQ(r.first, 0);
    EXPECT_EQ(r.second, "");
    Json res = lab->results({{"command_id", "dg-1"}});
    EXPECT_EQ(json_object_get(item(res, 0), "data"), nullptr);

    // The switch wrote its support data under the fixed name.
    auto gen = journal_lines_of(root, "rpcclt_openapiSupportFileGenerate");
    ASSERT_EQ(gen.size(), 1u);
    EXPECT_NE(gen[0].find("/tmp/platform-tech-support.txt"), std::string::npos);
    EXPECT_TRUE(logged(dump_line));
    EXPECT_TRUE(logged(gzip_line));
    // Nothing of it stays behind once it went up.
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar.gz")));
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar")));

    // One POST to the base URL, "/api" and the href, as a form part "file".
    Json up = lab->requests({{"path", "/api/diags/upload"}});
    ASSERT_EQ(json_array_size(up.get()), 1u);
    json_t *req = item(up, 0);
    EXPECT_EQ(json_str(req, "method"), "POST");
    json_t *headers = json_object_get(req, "headers");
    EXPECT_EQ(json_str(headers, "content-type").rfind("multipart/form-data", 0), 0u);
    Json tokens = lab->tokens();
    ASSERT_GE(json_array_size(tokens.get()), 1u);
    std::string token =
        json_str(json_array_get(tokens.get(), json_array_size(tokens.get()) - 1), "token");
    EXPECT_EQ(json_str(headers, "authorization"), "Bearer " + token);
    // The Authorization header is the only one the agent adds.
    size_t auth = 0;
    json_t *raw = json_object_get(req, "raw_headers");
    for (size_t i = 0; i < json_array_size(raw); i++) {
        std::string name = json_string_value(json_array_get(json_array_get(raw, i), 0));
        for (auto &c : name)
            c = (char)tolower(c);
        if (name == "authorization")
            auth++;
        EXPECT_TRUE(name == "host" || name == "accept" || name == "authorization" ||
                    name == "content-length" || name == "content-type" || name == "expect")
            << name;
    }
    EXPECT_EQ(auth, 1u);
    json_t *files = json_object_get(req, "files");
    ASSERT_EQ(json_array_size(files), 1u);
    EXPECT_EQ(json_str(json_array_get(files, 0), "name"), "file");
    EXPECT_EQ(json_str(json_array_get(files, 0), "filename"), "diagnostics.tar.gz");
    EXPECT_TRUE(logged("http_upload_file_multipart: uploading '/tmp/diagnostics.tar.gz' to '" +
                       lab->base_url + "/api/diags/upload'"));

    // The lab kept the archive: it holds the support file, the logs (with
    // the log summary written just before) and the settings dump.
    Json kept = archives();
    ASSERT_EQ(json_array_size(kept.get()), 1u);
    EXPECT_EQ(json_str(json_array_get(kept.get(), 0), "path"), "/api/diags/upload");
    std::string dir = unpack(archive(1), "dg-1");
    EXPECT_EQ(json_integer_value(json_object_get(json_array_get(kept.get(), 0), "size")),
              file_size(dir + ".tar.gz"));
    EXPECT_EQ(read_file(dir + "/platform-tech-support.txt").rfind("Switch support data\n", 0), 0u);
    std::string log = read_file(dir + "/logs/rw/orkad.log");
    EXPECT_NE(log.find("log_debug: uptime "), std::string::npos);
    EXPECT_NE(log.find("log_debug: /rw/orkad "), std::string::npos);
    std::string sql = read_file(dir + "/settings.sql");
    EXPECT_NE(sql.find("CREATE TABLE"), std::string::npos);
    EXPECT_NE(
        sql.find("INSERT INTO system VALUES('system.cloud-controller','" + lab->base_url + "');"),
        std::string::npos);
    // The password is the one setting the dump does not carry; the device
    // keeps it, and the logs in the archive never had it.
    EXPECT_NE(sql.find("INSERT INTO system VALUES('system.password','********');"),
              std::string::npos);
    EXPECT_EQ(sql.find("s3cret"), std::string::npos);
    EXPECT_EQ(log.find("s3cret"), std::string::npos);
    EXPECT_EQ(setting("password"), "it's-s3cret");
    EXPECT_FALSE(file_exists(dir + "/settings.db"));
    EXPECT_FALSE(file_exists(dir + "/settings.err"));
    EXPECT_EQ(read_file(dir + "/version"), read_file(root.at("/etc/version")));
}

TEST_F(DiagsLabTest, TheDumpWorksInAPrivateFolderAndLeavesOnlyItsTar)
{
    // mktemp is watched on its way through; a folder at the name the dump
    // once used (its own pid) belongs to somebody else.
    std::string bin = root.at("/watch");
    std::filesystem::create_directories(bin);
    write_file(bin + "/mktemp", "#!/bin/sh\necho \"$@\" >> \"$ORKAD_ROOT/mktemp.args\"\n"
                                "PATH=\"${PATH#*:}\" exec mktemp \"$@\"\n");
    chmod((bin + "/mktemp").c_str(), 0755);
    std::string tmp = root.at("/tmp");
    auto listing = [&] {
        std::vector<std::string> names;
        for (auto &e : std::filesystem::directory_iterator(tmp))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    };
    auto before = listing();
    std::string cmd = "PATH='" + bin + "':\"$PATH\" sh -c 'mkdir -p \"" + tmp +
                      "/diagnostics.$$/theirs\" && exec \"" +
                      root.at("/usr/sbin/varnex-diagnostic-dump") + "\"'";
    ASSERT_EQ(system(cmd.c_str()), 0);

    EXPECT_EQ(read_file(root.at("/mktemp.args")), "-d " + tmp + "/diagnostics.XXXXXX\n");
    auto after = listing();
    std::vector<std::string> added;
    for (auto &name : after)
        if (std::find(before.begin(), before.end(), name) == before.end())
            added.push_back(name);
    // The pre-made folder is still there, untouched, and the dump's own
    // folder is gone.
    ASSERT_EQ(added.size(), 2u);
    std::sort(added.begin(), added.end(), [](const std::string &a, const std::string &b) {
        return (a == "diagnostics.tar") > (b == "diagnostics.tar");
    });
    EXPECT_EQ(added[0], "diagnostics.tar");
    EXPECT_EQ(added[1].rfind("diagnostics.", 0), 0u);
    EXPECT_TRUE(file_exists(tmp + "/" + added[1] + "/theirs"));
    struct stat st;
    ASSERT_EQ(stat((tmp + "/diagnostics.tar").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(DiagsLabTest, AnOldArchiveIsRemovedFirst)
{
    write_file(root.at("/tmp/diagnostics.tar.gz"), "stale");
    get_diags("dg-1");
    EXPECT_EQ(result_of("dg-1").first, 0);
    std::string dir = unpack(archive(1), "dg-1");
    EXPECT_TRUE(file_exists(dir + "/platform-tech-support.txt"));
}

TEST_F(DiagsLabTest, WithoutServiceLinkNothingIsCollected)
{
    run(R"({"action":"get","context":"diagnostics","id":"dg-1","params":{}})");
    auto r = result_of("dg-1");
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "missing or invalid 'serviceLink' element in params");
    EXPECT_TRUE(logged("get.diagnostics: missing or invalid 'serviceLink' element in params"));
    EXPECT_FALSE(collected_anything());
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar.gz")));
    EXPECT_EQ(json_array_size(archives().get()), 0u);
}

TEST_F(DiagsLabTest, ServiceLinkWithoutHref)
{
    run(R"({"action":"get","context":"diagnostics","id":"dg-1","params":{"serviceLink":{}}})");
    run(R"({"action":"get","context":"diagnostics","id":"dg-2",)"
        R"("params":{"serviceLink":{"href":9}}})");
    run(R"({"action":"get","context":"diagnostics","id":"dg-3","params":{"serviceLink":"/x"}})");
    for (const char *id : {"dg-1", "dg-2"}) {
        auto r = result_of(id);
        EXPECT_EQ(r.first, -1);
        EXPECT_EQ(r.second, "missing or invalid 'href' element in params");
    }
    EXPECT_EQ(result_of("dg-3").second, "missing or invalid 'serviceLink' element in params");
    EXPECT_EQ(count_logged("get.diagnostics: missing or invalid 'href' element in params"), 2u);
    EXPECT_FALSE(collected_anything());
}

TEST_F(DiagsLabTest, WithoutIdOrParams)
{
    run(R"({"action":"get","context":"diagnostics","params":{"serviceLink":{"href":"/d"}}})");
    auto r = only_result();
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("get.diagnostics: missing or invalid 'id' element in command"));
    run(R"({"action":"get","context":"diagnostics","id":"dg-2"})");
    auto r2 = result_of("dg-2");
    EXPECT_EQ(r2.first, -1);
    EXPECT_EQ(r2.second, "missing or invalid 'params' element");
    EXPECT_TRUE(logged("get.diagnostics: missing or invalid 'params' element"));
    EXPECT_FALSE(collected_anything());
}

TEST_F(DiagsLabTest, AGzipFailureIsReportedWithoutAnUpload)
{
    replace_tool("/bin/gzip", "#!/bin/sh\nexit 1\n");
    get_diags("dg-1");
    auto r = result_of("dg-1");
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "failed to upload diagnostics data");
    EXPECT_TRUE(logged("cannot gzip diags tar file"));
    EXPECT_TRUE(logged("get.diagnostics: failed to upload diagnostics data"));
    EXPECT_FALSE(logged("http_upload_file_multipart: uploading '/tmp/diagnostics.tar.gz' to '" +
                        lab->base_url + "/api/diags/upload'"));
    EXPECT_EQ(count({{"path", "/api/diags/upload"}}), 0u);
    // The tar gzip could not take is not left lying about.
    EXPECT_TRUE(logged(dump_line));
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar")));
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar.gz")));
}

TEST_F(DiagsLabTest, ADumpScriptThatFailsOrLeavesNoTar)
{
    // Its status does not count; the missing tar does.
    replace_tool("/usr/sbin/varnex-diagnostic-dump", "#!/bin/sh\nexit 7\n");
    get_diags("dg-1");
    EXPECT_TRUE(
        logged("_sys: '/usr/sbin/varnex-diagnostic-dump > /dev/null 2>&1' (status = 1792)"));
    auto r = result_of("dg-1");
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "failed to upload diagnostics data");
    EXPECT_TRUE(logged("cannot gzip diags tar file"));
    EXPECT_EQ(count({{"path", "/api/diags/upload"}}), 0u);

    // A script that fails after leaving its tar: the archive goes up.
    replace_tool(
        "/usr/sbin/varnex-diagnostic-dump",
        "#!/bin/sh\necho partial > \"$ORKAD_ROOT/tmp/note\"\n"
        "tar -C \"$ORKAD_ROOT/tmp\" -cf \"$ORKAD_ROOT/tmp/diagnostics.tar\" note\nexit 3\n");
    get_diags("dg-2");
    EXPECT_EQ(result_of("dg-2").first, 0);
    std::string dir = unpack(archive(1), "dg-2");
    EXPECT_EQ(read_file(dir + "/note"), "partial\n");
}

TEST_F(DiagsLabTest, AFailedUploadIsReported)
{
    lab->script(R"({"path":"/api/diags/upload","drop":"reset"})");
    get_diags("dg-1");
    auto r = result_of("dg-1");
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "failed to upload diagnostics data");
    auto log = main_log();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string &l) {
        return l.rfind("http_upload_file_multipart: curl error: (CURLcode = ", 0) == 0;
    }));
    // Once: no retry and the token stays.
    EXPECT_EQ(count({{"path", "/api/diags/upload"}}), 1u);
    EXPECT_EQ(count({{"kind", "token"}}), 1u);
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar.gz")));
}

TEST_F(DiagsLabTest, AnUploadTheControllerRefusesIsAFailureAndTheArchiveGoes)
{
    lab->script(R"({"path":"/api/diags/upload","status":500})");
    get_diags("dg-1");
    // A refused upload is a failed one, answered so; the archive goes all
    // the same.
    EXPECT_EQ(result_of("dg-1"),
              std::make_pair(-1, std::string("failed to upload diagnostics data")));
    EXPECT_EQ(count({{"path", "/api/diags/upload"}}), 1u);
    EXPECT_FALSE(file_exists(root.at("/tmp/diagnostics.tar.gz")));
}

TEST_F(DiagsLabTest, TwoAtOnceRunOneAfterTheOther)
{
    std::thread a([this] { get_diags("dg-1"); });
    std::thread b([this] { get_diags("dg-2"); });
    a.join();
    b.join();
    EXPECT_EQ(result_of("dg-1").first, 0);
    EXPECT_EQ(result_of("dg-2").first, 0);
    // Each collection ran whole before the next began.
    std::vector<std::string> steps;
    for (auto &l : main_log()) {
        if (l.rfind("_sys: '/usr/sbin/varnex-diagnostic-dump", 0) == 0)
            steps.push_back("dump");
        else if (l.rfind("_sys: '/bin/gzip", 0) == 0)
            steps.push_back("gzip");
        else if (l.rfind("http_upload_file_multipart: done", 0) == 0)
            steps.push_back("done");
    }
    EXPECT_EQ(steps, (std::vector<std::string>{"dump", "gzip", "done", "dump", "gzip", "done"}));
    Json kept = archives();
    ASSERT_EQ(json_array_size(kept.get()), 2u);
    for (int i = 1; i <= 2; i++) {
        std::string dir = unpack(archive(i), "dg-" + std::to_string(i));
        EXPECT_TRUE(file_exists(dir + "/platform-tech-support.txt"));
        EXPECT_TRUE(file_exists(dir + "/settings.sql"));
    }
}
