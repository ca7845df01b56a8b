// watch_text.cpp: what is known of the watched directories, as text for whoever looks for a fault.

#include "files/watch_text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "files/directory_data.h"
#include "files/file_attributes.h"
#include "files/watch_list.h"
#include "foundation/mutex.h"

namespace traiklofox::files {

namespace {

std::string timeText(long long seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    char text[32];
    if (localtime_r(&time, &parts) == nullptr) return "?";
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

std::string fileText(const DIR_ENTRY& entry, const FILE_ENTRY& file) {
    CKZString text;
    text.Format("%c  %-40s%c%c mod: %s attr: %s\n", ' ', file.name.c_str(), file.isLink ? '@' : ' ',
                file.seenInScan == entry.scan ? ' ' : '?', timeText(file.mtimeSeconds).c_str(),
                FileAttribs2String(file.mode).c_str());
    return text;
}

/// The directory, its files by name, then its subdirectories. Nothing is ever replaced or out of service here.
void append(std::string& all, const DIR_ENTRY& entry, const std::string& path) {
    const bool isNew = (entry.flags & DIR_ENTRY::kNew) != 0;
    CKZString text;
    text.Format("%c%-40s  mod: %s, DskMsg: %#x, OOS: %#x, Repl to/frm: %#x/%#x, Flgs: %#x\n",
                isNew ? '*' : ' ', path.c_str(), timeText(entry.mtimeSeconds).c_str(),
                static_cast<unsigned int>(entry.flags & DIR_ENTRY::kDeviceReported),
                static_cast<unsigned int>(entry.missing), 0U, 0U, static_cast<unsigned int>(entry.flags));
    all += text;
    std::vector<const FILE_ENTRY*> files;
    for (const auto& [name, file] : entry.files) files.push_back(file.get());
    std::ranges::sort(files, {}, [](const FILE_ENTRY* file) -> const std::string& { return file->name; });
    for (const FILE_ENTRY* file : files) all += fileText(entry, *file);
    for (const auto& [name, subdirectory] : entry.subdirectories)
        append(all, *subdirectory, std::string(path).append("/").append(name));
}

}  // namespace

CKZString textOf(const ChangeNotificationHandle& handle, const char* label) {
    CKZString text;
    text.Format("%s\nst: %d watch: %s change: %s\n", label, handle.State(), handle.GetPath().c_str(),
                handle.GetChangeString().c_str());
    return text;
}

}  // namespace traiklofox::files

void DumpDirData() {
    std::string all = "\nDir_Data:\n";
    for (const auto& watch : traiklofox::files::allWatches()) {
        const traiklofox::files::SharedGuard guard(watch->lock);
        traiklofox::files::append(all, watch->entry, watch->path);
    }
    for (const auto& watched : traiklofox::files::listedHandles())
        all += traiklofox::files::textOf(*watched.handle, "--CNH:");
    std::fputs(all.c_str(), stderr);
}
