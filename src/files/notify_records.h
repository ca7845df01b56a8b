#pragma once

#include <traiklofox/change_notification.h>

#include <cstddef>
#include <span>

namespace traiklofox::files {

/// The bytes that all of these take in a buffer.
size_t sizeOfRecords(const NotifyRecords& records);

/// Writes the records that fit, in order, each as a `_FILE_NOTIFY_INFORMATION`, and removes them. Returns the bytes
/// written.
size_t takeRecords(NotifyRecords& records, std::span<std::byte> buffer);

}  // namespace traiklofox::files
