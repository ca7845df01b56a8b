#pragma once

namespace traiklofox::registry {

/// A change is to be written: by the lazy writer at its next interval when there is one, else now. False when
/// it was tried now and failed. Under no lock.
bool requestWrite();

/// Tells the lazy writer that there is something to write.
void noteFlushNeeded();

}  // namespace traiklofox::registry
