#pragma once

/// Files and directories. This header only gathers those of its family.

#include <traiklofox/change_notification.h>
#include <traiklofox/completion_ports.h>
#include <traiklofox/copy_file.h>
#include <traiklofox/directories.h>
#include <traiklofox/disk_space.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/file_find.h>
#include <traiklofox/file_io.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/file_mapping.h>
#include <traiklofox/file_search.h>
#include <traiklofox/file_status.h>
#include <traiklofox/move_file.h>
#include <traiklofox/settings.h>
#include <traiklofox/super_glob.h>
#include <traiklofox/temp_name.h>
