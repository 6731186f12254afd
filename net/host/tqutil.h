// What the library uses of the host's utility library. net/ reaches tqutil only through here.
#pragma once

#include "tqutil/app_info.h"
#include "tqutil/component.h"
#include "tqutil/crypt_hash.h"
#include "tqutil/error_log.h"
#include "tqutil/file_protocol.h"
#include "tqutil/file_streams.h"
#include "tqutil/file_url.h"
#include "tqutil/option.h"
#include "tqutil/stop_token.h"
#include "tqutil/streams.h"
#include "tqutil/strings.h"
#include "tqutil/sys_file.h"
#include "tqutil/sys_time.h"
#include "tqutil/url.h"
#include "tqutil/memory_pages.h"
#include "tqutil/per_thread.h"
