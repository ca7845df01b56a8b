#pragma once

#include <traiklofox/strings.h>

/// A name in `directory` that no file has at this moment, and that no other call in any process of the
/// machine returns:
/// ".kztmp.", the process id, and a part that makes it unique. Nothing is made; open it with
/// `FileLock::noreplace` or O_EXCL. Any thread may call.
TRAIKLOFOX_API CKZString KZTempNam(const CKZString& directory);
