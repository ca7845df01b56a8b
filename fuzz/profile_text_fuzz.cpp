// A profile's text, looked up and changed.
//
// The input is the number of lines to begin with that are changes, as a digit's character; then a profile. A change is
// a section, a key and a value with slashes between; without a value it deletes the key, without a key the section.

#include <memory>
#include <set>

#include "profiles/profile_edit.h"
#include "profiles/profile_text.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::profiles;
using Kind = ProfileLine::Kind;

/// The plain rule: the first section of the name, the first key in it, line by line.
std::optional<std::string_view> search(const ProfileText& profile, std::string_view section,
                                       std::string_view key) {
    bool isIn = false;
    for (const ProfileLine& line : profile.lines()) {
        if (line.kind == Kind::Section) {
            if (isIn) return std::nullopt;
            isIn = NameEqual{}(line.name, section);
        } else if (isIn && line.kind == Kind::Key && NameEqual{}(line.name, key)) {
            return line.value;
        }
    }
    return std::nullopt;
}

/// The lines of a kind that no change touches.
std::multiset<std::string> linesOf(const ProfileText& profile, Kind kind) {
    std::multiset<std::string> found;
    for (const ProfileLine& line : profile.lines())
        if (line.kind == kind) found.emplace(line.name);
    return found;
}

void checkLookUps(ProfileText& profile) {
    size_t place = 0;
    std::string_view section;
    for (const ProfileLine& line : profile.lines()) {
        require(line.begin == place && line.end > place, "a line follows the other", profile.text());
        place = line.end;
        if (line.kind == Kind::Section) section = line.name;
        if (line.kind != Kind::Key) continue;
        require(profile.value(section, line.name) == search(profile, section, line.name),
                "the index says what a search does", profile.text());
    }
    require(place == profile.text().size(), "to the end", profile.text());
}

ProfileEdit editOf(std::string_view line) {
    ProfileEdit edit;
    const size_t first = line.find('/');
    edit.section = trimmed(line.substr(0, first));
    if (first == line.npos) return edit;
    line.remove_prefix(first + 1);
    const size_t second = line.find('/');
    edit.kind = second == line.npos ? ProfileEdit::Kind::DeleteKey : ProfileEdit::Kind::SetKey;
    edit.key = trimmed(line.substr(0, second));
    if (second != line.npos) edit.value = trimmed(line.substr(second + 1));
    return edit;
}

void checkEdit(const ProfileText& before, const ProfileEdit& edit) {
    ProfileText after(edited(before, {edit}));
    const auto why = [&] { return edit.section + "/" + edit.key + "/" + edit.value + "\n" + before.text(); };
    require(edited(after, {edit}) == after.text(), "done again, it changes nothing", why);
    checkLookUps(after);
    switch (edit.kind) {
        case ProfileEdit::Kind::SetKey:
            require(after.value(edit.section, edit.key) == edit.value, "a value that is set is read", why);
            break;
        case ProfileEdit::Kind::DeleteKey:
            require(!after.value(edit.section, edit.key), "a deleted key is gone", why);
            break;
        case ProfileEdit::Kind::DeleteSection:
            require(!after.section(edit.section), "a deleted section is gone", why);
            return;
        case ProfileEdit::Kind::ReplaceSection: return;
    }
    for (const Kind kind : {Kind::Comment, Kind::Other})
        require(linesOf(before, kind) == linesOf(after, kind), "comments and the like stay", why);
    std::string_view section;
    for (const ProfileLine& line : before.lines()) {
        if (line.kind == Kind::Section) section = line.name;
        if (line.kind != Kind::Key) continue;
        if (NameEqual{}(section, edit.section) && NameEqual{}(line.name, edit.key)) continue;
        require(search(before, section, line.name) == after.value(section, line.name), "other values stay",
                why);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    std::vector<ProfileEdit> edits;
    if (!rest.empty()) {
        const int count = rest.front() - '0';
        rest.remove_prefix(1);
        for (int i = 0; i < count && i < 10; ++i) {
            const std::string_view line = takeLine(rest);
            edits.push_back(editOf(line.substr(0, line.find('\0'))));  // callers hand over C texts
        }
    }
    const ProfileText first{std::string(rest)};
    auto profile = std::make_unique<ProfileText>(first.text());
    ProfileEdits made;
    checkLookUps(*profile);
    for (const ProfileEdit& edit : edits) {
        if (!edit.canBeWritten()) continue;
        checkEdit(*profile, edit);
        profile = std::make_unique<ProfileText>(edited(*profile, {edit}));
        made.push_back(edit);
    }
    require(edited(first, made) == profile->text(), "made together as one after the other", first.text());
    return 0;
}
