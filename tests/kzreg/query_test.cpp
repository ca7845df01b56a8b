// kzreg query: what it finds, and how it shows it.

#include <sstream>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

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

class KzregQuery : public KzregTest {
  protected:
    void SetUp() override {
        KzregTest::SetUp();
        if (!IsSkipped()) writeText(registry(), kRegistryText);
    }
};

constexpr const char* kExampleShown =
    "hkey_local_machine\\software\\Example\n"
    "    (Default)    REG_SZ    nameless\n"
    "    Alpha    REG_SZ    q\"\\\t\xC3\xA4\xE4\n"
    "    Hosts    REG_MULTI_SZ    one\\0two\n"
    "    None    REG_MULTI_SZ    \n"
    "    Port    REG_DWORD    0x140\n"
    "    zeta    REG_SZ    \n";

TEST_F(KzregQuery, ShowsTheValuesAndTheSubkeysOfAKeyByName) {
    EXPECT_EQ(kzreg({"query", "software\\example"}),
              done(std::string(kExampleShown) + "\n"
                                                "hkey_local_machine\\software\\Example\\empty\n"
                                                "hkey_local_machine\\software\\Example\\mime\n"));
    EXPECT_EQ(kzreg({"query", "software\\example\\empty"}),
              done("hkey_local_machine\\software\\Example\\empty\n"));
}

TEST_F(KzregQuery, TakesKeysAsPeopleWriteThem) {
    const Outcome expected = kzreg({"query", "software\\example"});
    for (const char* key : {"software/example", "/software/example/", "\\software\\\\example\\",
                            "HKLM\\Software\\EXAMPLE", "hklm/software/example",
                            "HKEY_LOCAL_MACHINE\\software\\example", "hkey_local_machine\\software\\example"})
        EXPECT_EQ(kzreg({"query", key}), expected) << key;
    for (const char* root : {"\\", "/", "HKLM", "hkey_local_machine\\"})
        EXPECT_EQ(kzreg({"query", root}), done("hkey_local_machine\n\nhkey_local_machine\\software\n"))
            << root;
    EXPECT_EQ(
        kzreg({"query", "software\\example\\mime\\text/html"}),
        done("hkey_local_machine\\software\\Example\\mime\\text/html\n    Port    REG_DWORD    0xffffffff\n"))
        << "a slash is a character where there are backslashes";
}

TEST_F(KzregQuery, ShowsAllKeysBelowOneAfterAnother) {
    EXPECT_EQ(kzreg({"query", "software\\example", "-s"}),
              done(std::string(kExampleShown) + "\n"
                                                "hkey_local_machine\\software\\Example\\empty\n"
                                                "\n"
                                                "hkey_local_machine\\software\\Example\\mime\n"
                                                "\n"
                                                "hkey_local_machine\\software\\Example\\mime\\text/html\n"
                                                "    Port    REG_DWORD    0xffffffff\n"));
}

TEST_F(KzregQuery, ShowsOneValueOfOneKeyOrOfAll) {
    EXPECT_EQ(kzreg({"query", "software\\example", "-v", "PORT"}),
              done("hkey_local_machine\\software\\Example\n    PORT    REG_DWORD    0x140\n"));
    EXPECT_EQ(kzreg({"query", "software\\example", "-v", ""}),
              done("hkey_local_machine\\software\\Example\n    (Default)    REG_SZ    nameless\n"));
    EXPECT_EQ(
        kzreg({"query", "HKLM", "-s", "-v", "Port"}),
        done(
            "hkey_local_machine\\software\\Example\n    Port    REG_DWORD    0x140\n"
            "\n"
            "hkey_local_machine\\software\\Example\\mime\\text/html\n    Port    REG_DWORD    0xffffffff\n"));
}

TEST_F(KzregQuery, SaysWhatIsMissingAndWhereToLook) {
    EXPECT_THAT(kzreg({"query", "software\\example\\no\\such"}),
                Fails(1,
                      "there is no key hkey_local_machine\\software\\example\\no\\such; "
                      "kzreg query 'hkey_local_machine\\software\\example' lists what is there"));
    EXPECT_THAT(kzreg({"query", "nosuch"}), Fails(1, "kzreg query 'hkey_local_machine' lists"));
    EXPECT_THAT(kzreg({"query", "HKLM", "-v", "x"}),
                Fails(1, "there is no value x in hkey_local_machine; kzreg query"));
    EXPECT_THAT(kzreg({"query", "HKLM", "-v", "x", "-s"}),
                Fails(1, "no value x in hkey_local_machine or below;"));
}

/// JSON without the line ends and the indentation, which the status command's test looks at.
std::string compact(const std::string& json) {
    std::istringstream lines(json);
    std::string result;
    for (std::string line; std::getline(lines, line);)
        result += line.substr(std::min(line.find_first_not_of(' '), line.size()));
    return result;
}

TEST_F(KzregQuery, TellsTheSameAsJson) {
    EXPECT_EQ(compact(kzreg({"query", "software\\example", "--json"}).output),
              R"({"keys": [{"key": "hkey_local_machine\\software\\Example","values": [)"
              R"({"name": "","type": "REG_SZ","data": "nameless"},)"
              R"({"name": "Alpha","type": "REG_SZ","data": "q\"\\\u0009)"
              "\xC3\xA4"
              R"(\u00e4"},)"
              R"({"name": "Hosts","type": "REG_MULTI_SZ","data": ["one","two"]},)"
              R"({"name": "None","type": "REG_MULTI_SZ","data": []},)"
              R"({"name": "Port","type": "REG_DWORD","data": 320},)"
              R"({"name": "zeta","type": "REG_SZ","data": ""}],)"
              R"("subkeys": ["empty","mime"]}]})");
    EXPECT_EQ(compact(kzreg({"query", "software\\example\\mime", "--json", "-s"}).output),
              R"({"keys": [{"key": "hkey_local_machine\\software\\Example\\mime","values": [],)"
              R"("subkeys": ["text/html"]},)"
              R"({"key": "hkey_local_machine\\software\\Example\\mime\\text/html","values": [)"
              R"({"name": "Port","type": "REG_DWORD","data": 4294967295}],"subkeys": []}]})");
}

TEST_F(KzregQuery, JsonWritesBytesThatAreNoUtf8AsCharactersOfTheirNumbers) {
    struct Case {
        const char* bytes;
        const char* json;
    };
    const Case cases[] = {
        {"\xE2\x82\xAC \xF0\x9F\x98\x80", "\xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xC0\x80", "\\u00c0\\u0080"},                        // overlong
        {"\xE0\x9F\xBF", "\\u00e0\\u009f\\u00bf"},             // overlong
        {"\xED\xA0\x80", "\\u00ed\\u00a0\\u0080"},             // a surrogate
        {"\xF4\x90\x80\x80", "\\u00f4\\u0090\\u0080\\u0080"},  // beyond the last character
        {"\xE2\x82", "\\u00e2\\u0082"},                        // cut short
        {"\xE2\x82x", "\\u00e2\\u0082x"},
        {"\x01\x7F", "\\u0001\\u007f"},
    };
    for (const Case& text : cases) {
        add("software\\example\\empty", "v", text.bytes);
        EXPECT_THAT(kzreg({"query", "software\\example\\empty", "--json"}).output,
                    ::testing::HasSubstr(std::string("\"data\": \"") + text.json + "\"\n"));
    }
}

}  // namespace
}  // namespace traiklofox::test
