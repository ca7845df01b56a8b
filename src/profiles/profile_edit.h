#pragma once

// profile_edit.h: a change to a profile, which can be made in any text of it: in the one that a reader has, and in the
// one that the file holds when the change is written.

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "profiles/profile_text.h"

namespace traiklofox::profiles {

struct ProfileEdit {
    enum class Kind { SetKey, DeleteKey, ReplaceSection, DeleteSection };
    Kind kind = Kind::DeleteSection;
    std::string section;
    std::string key = {};
    std::string value = {};
    std::vector<std::string> lines = {};  // of ReplaceSection

    /// True when all of it would be read back as it is written.
    bool canBeWritten() const;
};

/// What many have in common: a deque, whose elements stay where they are when others are added.
using ProfileEdits = std::deque<ProfileEdit>;

/// The text with the changes in it, from the one numbered `first` on. The text is gone through once, however many
/// there are.
std::string edited(const ProfileText& profile, const ProfileEdits& edits, size_t first = 0);

}  // namespace traiklofox::profiles
