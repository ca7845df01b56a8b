#pragma once

namespace traiklofox::registry {

/// The registry's share of the library's start: the handlers around a fork. The registry itself starts with
/// the first registry call.
void startRegistryFloor();

}  // namespace traiklofox::registry
