#pragma once

// profile_edit.h: a change to a profile, which can be made in any text of it: in the one that a reader has, and in the
// one that the file holds when the change is written.

#include <optional>
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

/// The text with the change in it.
std::string edited(const ProfileText& profile, const ProfileEdit& edit);

}  // namespace traiklofox::profiles
