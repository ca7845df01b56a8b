#pragma once

/// Files: a stream that locks its file, copying, temporary names.

#include <traiklofox/copy_file.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/settings.h>
#include <traiklofox/temp_name.h>
