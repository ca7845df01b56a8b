#include "profiles/profile_edit.h"

#include <algorithm>

namespace traiklofox::profiles {

namespace {

using Kind = ProfileLine::Kind;

bool hasLineEnd(std::string_view text) {
    return text.find_first_of("\r\n") != text.npos;
}

bool isSectionName(std::string_view name) {
    return !hasLineEnd(name) && name.find(']') == name.npos;
}

bool isKeyName(std::string_view name) {
    return !name.empty() && !hasLineEnd(name) && name.find('=') == name.npos && name.front() != '[' &&
           name.front() != ';';
}

bool isSectionLine(std::string_view line) {
    line = trimmed(line);
    return !line.empty() && !hasLineEnd(line) && line.front() != '[';
}

/// Takes the text over piece by piece, with what is put between the pieces.
class Rewriting {
  public:
    explicit Rewriting(const ProfileText& profile) : from_(profile.text()), lineEnd_(profile.lineEnd()) {
        made_.reserve(from_.size() + 256);
    }

    void copyTo(size_t place) {
        made_.append(from_, done_, place - done_);
        done_ = place;
    }
    void skipTo(size_t place) { done_ = place; }
    void put(std::string_view text) { made_ += text; }
    void putLine(std::string_view line) {
        if (!made_.empty() && made_.back() != '\n') made_ += lineEnd_;
        made_.append(line).append(lineEnd_);
    }
    std::string finish() {
        copyTo(from_.size());
        return std::move(made_);
    }

  private:
    const std::string& from_;
    std::string_view lineEnd_;
    size_t done_ = 0;
    std::string made_;
};

bool isContent(const ProfileLine& line) {
    return line.kind == Kind::Key || line.kind == Kind::Other;
}

bool isKey(const ProfileLine& line, std::string_view key) {
    return line.kind == Kind::Key && NameEqual{}(line.name, key);
}

std::string withKey(const ProfileText& profile, size_t section, const ProfileEdit& edit) {
    Rewriting rewriting(profile);
    const auto& lines = profile.lines();
    size_t last = section;
    for (size_t i = section + 1; i < profile.endOfSection(section); ++i) {
        if (isKey(lines[i], edit.key)) {
            const std::string_view old = lines[i].value;
            const auto place = static_cast<size_t>(old.data() - profile.text().data());
            rewriting.copyTo(place);
            rewriting.put(edit.value);
            rewriting.skipTo(place + old.size());
            return rewriting.finish();
        }
        if (isContent(lines[i])) last = i;
    }
    rewriting.copyTo(lines[last].end);
    rewriting.putLine(edit.key + "=" + edit.value);
    return rewriting.finish();
}

std::string withoutKey(const ProfileText& profile, size_t section, const ProfileEdit& edit) {
    Rewriting rewriting(profile);
    const auto& lines = profile.lines();
    for (size_t i = section + 1; i < profile.endOfSection(section); ++i) {
        if (!isKey(lines[i], edit.key)) continue;
        rewriting.copyTo(lines[i].begin);
        rewriting.skipTo(lines[i].end);
    }
    return rewriting.finish();
}

std::string withOtherContent(const ProfileText& profile, size_t section, const ProfileEdit& edit) {
    Rewriting rewriting(profile);
    const auto& lines = profile.lines();
    rewriting.copyTo(lines[section].end);
    for (const std::string& line : edit.lines) rewriting.putLine(line);
    for (size_t i = section + 1; i < profile.endOfSection(section); ++i) {
        if (!isContent(lines[i])) continue;
        rewriting.copyTo(lines[i].begin);
        rewriting.skipTo(lines[i].end);
    }
    return rewriting.finish();
}

std::string withoutSection(const ProfileText& profile, std::string_view name) {
    Rewriting rewriting(profile);
    const auto& lines = profile.lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].kind != Kind::Section || !NameEqual{}(lines[i].name, name)) continue;
        const size_t end = profile.endOfSection(i);
        rewriting.copyTo(lines[i].begin);
        rewriting.skipTo(lines[end - 1].end);
    }
    return rewriting.finish();
}

std::string withNewSection(const ProfileText& profile, const ProfileEdit& edit) {
    Rewriting rewriting(profile);
    rewriting.copyTo(profile.text().size());
    rewriting.putLine("[" + edit.section + "]");
    if (edit.kind == ProfileEdit::Kind::SetKey) rewriting.putLine(edit.key + "=" + edit.value);
    for (const std::string& line : edit.lines) rewriting.putLine(line);
    return rewriting.finish();
}

}  // namespace

bool ProfileEdit::canBeWritten() const {
    if (!isSectionName(section)) return false;
    switch (kind) {
        case Kind::SetKey: return isKeyName(key) && !hasLineEnd(value);
        case Kind::DeleteKey: return isKeyName(key);
        case Kind::ReplaceSection: return std::ranges::all_of(lines, isSectionLine);
        case Kind::DeleteSection: return true;
    }
    return false;
}

std::string edited(const ProfileText& profile, const ProfileEdit& edit) {
    using enum ProfileEdit::Kind;
    const auto section = profile.section(edit.section);
    const bool isNew = !section && (edit.kind == SetKey || edit.kind == ReplaceSection);
    if (isNew) return withNewSection(profile, edit);
    if (!section) return profile.text();
    switch (edit.kind) {
        case SetKey: return withKey(profile, *section, edit);
        case DeleteKey: return withoutKey(profile, *section, edit);
        case ReplaceSection: return withOtherContent(profile, *section, edit);
        case DeleteSection: return withoutSection(profile, edit.section);
    }
    return profile.text();
}

}  // namespace traiklofox::profiles
