// Dates, profiles, UUIDs and the process list.

#include <traiklofox/date_engine.h>
#include <traiklofox/locale.h>
#include <traiklofox/process_list.h>
#include <traiklofox/profiles.h>
#include <traiklofox/uuid.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "soak/life.h"
#include "soak/registry_state.h"
#include "support/bounded_wait.h"

namespace traiklofox::soak {
namespace {

using namespace std::chrono_literals;

constexpr LCID kEnglish = 1033;  // which needs no locale to be installed
constexpr std::chrono::seconds kBound{40};

void renderAndParse(test::Random& random) {
    constexpr LONG kFirstDay = 10'959;  // 1930-01-01: two digits of a year are of this one to 2029
    constexpr DWORD kDays = 36'525;
    const LONG day = kFirstDay + static_cast<LONG>(random.below(kDays));
    tagUDS fields{};
    (void)VarUdateFromDate(day, 0, &fields);
    fields.wHour = static_cast<WORD>(random.below(24));
    fields.wMinute = static_cast<WORD>(random.below(60));
    fields.wSecond = static_cast<WORD>(random.below(60));
    tagVARIANT value{};
    double parsed = 0;
    char* text = nullptr;
    const bool isSame = timed(Op::Date, [&] {
        return ErrPackDate(&fields, &value, /*validate=*/1, 0) == S_OK &&
               sarnu_VarBstrFromDate(value.date, kEnglish, 0, &text) == S_OK &&
               sarnu_VarDateFromStr(text, kEnglish, 0, &parsed) == S_OK && parsed == value.date;
    });
    check(DatesRoundTrip, isSame, "%.17g, rendered %s, parsed %.17g", value.date, text, parsed);
    std::free(text);
}

std::uint32_t numberInProfile(size_t slot, const std::string& file) {
    return GetPrivateProfileInt(("worker " + std::to_string(slot)).c_str(), "n", 0, file.c_str());
}

/// On the disk that runs full at times: what is not written is refused.
void writeProfile(size_t slot, const std::string& file) {
    Journal& journal = ownSlot().profile;
    const std::uint32_t number = journal.acknowledged + 1;
    journal.asked = number;
    const auto write = [&] {
        return WritePrivateProfileString(("worker " + std::to_string(slot)).c_str(), "n",
                                         std::to_string(number).c_str(), file.c_str()) != 0;
    };
    if (!timed(Op::ProfileWrite, write))
        check(ProfilesKeep, test::within(kBound, write), "%u cannot be written", number);
    journal.acknowledged = number;
    const std::uint32_t found = numberInProfile(slot, file);
    check(ProfilesKeep, found == number, "%u is read as %u", number, found);
}

/// Of all workers, as the file has them now.
void readProfile(const std::string& file) {
    std::uint32_t acknowledged[kMostSlots];
    for (size_t slot = 0; slot < kMostSlots; ++slot)
        acknowledged[slot] = board().slots[slot].profile.acknowledged;
    (void)WritePrivateProfileString(nullptr, nullptr, nullptr, file.c_str());
    for (size_t slot = 0; slot < kMostSlots; ++slot) {
        if (acknowledged[slot] == 0) continue;
        const std::uint32_t found = numberInProfile(slot, file);
        check(ProfilesKeep, found >= acknowledged[slot], "worker %zu: %u is read as %u", slot,
              acknowledged[slot], found);
    }
}

/// The clock does not step meanwhile.
void makeUuids() {
    constexpr int kUuids = 10;
    std::vector<std::string> texts;
    for (int i = 0; i < kUuids; ++i) {
        std::this_thread::sleep_for(20us);  // two of one microsecond take a second
        (void)timed(Op::Uuid, [&] {
            _GUID made{}, read{};
            unsigned char* text = nullptr;
            const bool survives = UuidCreate(&made) == 0 && UuidToString(&made, &text) == 0 &&
                                  UuidFromString(text, &read) == 0 && UuidCompare(&made, &read, nullptr) == 0;
            check(UuidsDiffer, survives, "a text is read as another");
            if (text != nullptr) texts.emplace_back(reinterpret_cast<const char*>(text));
            return RpcStringFree(&text) == 0;
        });
    }
    std::ranges::sort(texts);
    const auto twice = std::ranges::adjacent_find(texts);
    check(UuidsDiffer, twice == texts.end(), "%s is given twice",
          twice != texts.end() ? twice->c_str() : "none");
}

void listProcesses() {
    std::vector<DWORD> ids(10'000);
    DWORD bytes = 0;
    const bool listed = timed(Op::ProcessList, [&] {
        return EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &bytes) != 0;
    });
    ids.resize(bytes / sizeof(DWORD));
    const auto has = [&](pid_t id) { return std::ranges::count(ids, static_cast<DWORD>(id)) == 1; };
    check(ProcessesListed, listed && has(::getpid()) && has(::getppid()), "among %zu processes", ids.size());
}

TEST_ROLE(dates) {
    Life life(args, kGreatSteps);
    check(DatesRoundTrip, initLocaleInfo(), "no locales");
    const std::string profile = homeDirectory() + "/soak.ini";
    return life.live([&] {
        for (int i = 0; i < 50; ++i) renderAndParse(life.random);
        writeProfile(life.slot, profile);
        readProfile(profile);
        makeUuids();
        listProcesses();
        std::this_thread::sleep_for(1ms * life.random.below(20));
    });
}

}  // namespace
}  // namespace traiklofox::soak
