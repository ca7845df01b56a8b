// kzreg query, status and backup: what they find, and how they show it.

#include <traiklofox/registry.h>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregQuery : public KzregTest {};

constexpr const char* kRegistryText =
    "hkey_local_machine:1\n"
    "hkey_local_machine\\software:2\n"
    "hkey_local_machine\\software\\Example:3\n"
    ":                     \tnameless;             \tREG_SZ\n"
    "zeta:                 \t;                     \tREG_SZ\n"
    "Alpha:                \tq\"\\\t\xC3\xA4\xE4;            \tREG_SZ\n"
    "Hosts:                \tone two ;             \tREG_MULTI_SZ\n"
    "None:                 \t;                     \tREG_MULTI_SZ\n"
    "Port:                 \t0500;                 \tREG_DWORD\n"
    "hkey_local_machine\\software\\Example\\mime\\text/html:4\n"
    "Port:                 \t0xffffffff;           \tREG_DWORD\n"
    "hkey_local_machine\\software\\Example\\empty:5\n";

TEST_F(KzregQuery, FindsKeysAsPeopleWriteThemAndShowsThemByNameOrSaysWhereToLook) {
    writeText(registry(), kRegistryText);
    const std::string software = "hkey_local_machine\\software\n",
                      key = "hkey_local_machine\\software\\Example";
    const std::string values = key +
                               "\n    (Default)    REG_SZ    nameless\n"
                               "    Alpha    REG_SZ    q\"\\\t\xC3\xA4\xE4\n"
                               "    Hosts    REG_MULTI_SZ    one\\0two\n"
                               "    None    REG_MULTI_SZ    \n"
                               "    Port    REG_DWORD    0x140\n"
                               "    zeta    REG_SZ    \n\n";
    const std::string mime = key + "\\mime\n", empty = key + "\\empty\n";
    const std::string html = key + "\\mime\\text/html\n    Port    REG_DWORD    0xffffffff\n";
    for (const char* written :
         {"software\\example", "software/example", "/software/example/", "\\software\\\\example\\",
          "HKLM\\Software\\EXAMPLE", "hklm/software/example", "HKEY_LOCAL_MACHINE\\software\\example"})
        EXPECT_EQ(kzreg({"query", written}), done(values + empty + mime)) << written;
    for (const char* root : {"\\", "/", "HKLM", "hkey_local_machine\\"})
        EXPECT_EQ(kzreg({"query", root}), done("hkey_local_machine\n\n" + software)) << root;
    const std::pair<Words, std::string> found[] = {
        {{"software\\example\\empty"}, empty},
        {{"software\\example\\mime\\text/html"}, html},  // a slash is a character where there are backslashes
        {{"software\\example", "-s"}, values + empty + "\n" + mime + "\n" + html},
        {{"software\\example", "-v", "PORT"}, key + "\n    PORT    REG_DWORD    0x140\n"},
        {{"software\\example", "-v", ""}, key + "\n    (Default)    REG_SZ    nameless\n"},
        {{"HKLM", "-s", "-v", "Port"}, key + "\n    Port    REG_DWORD    0x140\n\n" + html}};
    for (auto [words, shown] : found) {
        words.insert(words.begin(), "query");
        EXPECT_EQ(kzreg(words), done(shown)) << ::testing::PrintToString(words);
    }
    const std::pair<Words, const char*> missing[] = {
        {{"query", "software\\example\\no\\such"},
         "there is no key hkey_local_machine\\software\\example\\no\\such; "
         "kzreg query 'hkey_local_machine\\software\\example' lists what is there"},
        {{"query", "nosuch"}, "kzreg query 'hkey_local_machine' lists"},
        {{"query", "HKLM", "-v", "x"}, "there is no value x in hkey_local_machine; kzreg query"},
        {{"query", "HKLM", "-v", "x", "-s"}, "no value x in hkey_local_machine or below;"}};
    for (const auto& [words, said] : missing) EXPECT_THAT(kzreg(words), Fails(1, said));
}

TEST_F(KzregQuery, TellsTheSameAsJsonWithBytesThatAreNoUtf8AsCharactersOfTheirNumbers) {
    writeText(registry(), kRegistryText);
    std::string json = kzreg({"query", "software\\example", "--json", "-s"}).output;
    for (size_t end; (end = json.find('\n')) != json.npos;)  // as one line
        json.erase(end, json.find_first_not_of("\n ", end) - end);
    EXPECT_EQ(
        json,
        R"({"keys": [{"key": "hkey_local_machine\\software\\Example","values": [)"
        R"({"name": "","type": "REG_SZ","data": "nameless"},)"
        R"({"name": "Alpha","type": "REG_SZ","data": "q\"\\\u0009)"
        "\xC3\xA4"
        R"(\u00e4"},)"
        R"({"name": "Hosts","type": "REG_MULTI_SZ","data": ["one","two"]},)"
        R"({"name": "None","type": "REG_MULTI_SZ","data": []},)"
        R"({"name": "Port","type": "REG_DWORD","data": 320},)"
        R"({"name": "zeta","type": "REG_SZ","data": ""}],"subkeys": ["empty","mime"]},)"
        R"({"key": "hkey_local_machine\\software\\Example\\empty","values": [],"subkeys": []},)"
        R"({"key": "hkey_local_machine\\software\\Example\\mime","values": [],"subkeys": ["text/html"]},)"
        R"({"key": "hkey_local_machine\\software\\Example\\mime\\text/html","values": [)"
        R"({"name": "Port","type": "REG_DWORD","data": 4294967295}],"subkeys": []}]})");
    for (const auto& [bytes, shown] :
         {std::pair{"\xE2\x82\xAC \xF0\x9F\x98\x80", "\xE2\x82\xAC \xF0\x9F\x98\x80"},
          {"\xC0\x80", "\\u00c0\\u0080"},                        // overlong
          {"\xE0\x9F\xBF", "\\u00e0\\u009f\\u00bf"},             // overlong
          {"\xED\xA0\x80", "\\u00ed\\u00a0\\u0080"},             // a surrogate
          {"\xF4\x90\x80\x80", "\\u00f4\\u0090\\u0080\\u0080"},  // beyond the last character
          {"\xE2\x82", "\\u00e2\\u0082"},                        // cut short
          {"\xE2\x82x", "\\u00e2\\u0082x"},
          {"\x01\x7F", "\\u0001\\u007f"}}) {
        add("software\\example\\empty", "v", bytes);
        EXPECT_THAT(kzreg({"query", "software\\example\\empty", "--json"}).output,
                    HasSubstr(std::string("\"data\": \"") + shown + "\"\n"));
    }
}

TEST_ROLE(holdsTheRegistryLock) {
    RegLockCache(REG_LOCK_EXCLUSIVE);
    tellTest("held");
    (void)hearTest();
    return 0;
}

TEST_F(KzregQuery, StatusTellsOfFilesCountsTheLastWriterAndTheOwnerOfTheLock) {
    EXPECT_EQ(kzreg({"status"}),
              done(filledIn("registry:      @\n"
                            "template:      ~\n"
                            "backup:        @.bak (missing)\n"
                            "lock file:     /usr/lib/tarnwell/twml_data.dat\n"
                            "version stamp: 0\n"
                            "last writer:   none\n"
                            "lock owner:    none\n"
                            "file:          ") +
                   std::to_string(fs::file_size(templateFile())) + " bytes, 3 keys, 1 values\n"));
    for (const char* data : {"1", "2"}) {
        add("software\\example\\a", "v", data);
        ASSERT_EQ(kzreg({"backup"}), done(filledIn("backed up to @.bak\n")));
        EXPECT_EQ(readText(registry() + ".bak"), registryText());
        EXPECT_EQ(otherFiles(), "tw.registry.bak");
    }
    std::string json = kzreg({"status", "--json"}).output;
    const size_t writer = json.find("\"lastWriter\": ") + 14;
    const std::string pid = json.substr(writer, json.find(',', writer) - writer);
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("last writer:   process " + pid + " (has ended)\n"));
    EXPECT_EQ(json.replace(writer, pid.size(), "0"), filledIn(R"({
  "registry": "@",
  "template": "~",
  "backup": "@.bak",
  "lockFile": "/usr/lib/tarnwell/twml_data.dat",
  "versionStamp": 2,
  "lastWriter": 0,
  "lockOwner": null,
  "bytes": )") + std::to_string(fs::file_size(registry())) +
                                                         R"(,
  "keys": 4,
  "values": 2,
  "defects": 0
}
)");
    RoleProcess owner{"holdsTheRegistryLock"};
    ASSERT_EQ(owner.readLine(), "held");
    const std::string holder = std::to_string(owner.pid());
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    process " + holder + "\n"));
    EXPECT_THAT(kzreg({"status", "--json"}).output, HasSubstr("\"lockOwner\": " + holder + ",\n"));
    owner.kill(SIGKILL);
    EXPECT_EQ(owner.wait(), ExitStatus::killedBy(SIGKILL));
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    process " + holder + " (has ended)\n"));
    add("software\\example", "v", "1");
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    none\n"));
    fs::remove(registry());
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("registry:      " + registry() + " (missing)\n"));
    EXPECT_THAT(kzreg({"status", "--json"}).output, HasSubstr("\"registry\": null,\n"));
}

}  // namespace
}  // namespace traiklofox::test
