// Wraps Wine's <crtdbg.h>, adding the report modes and files of the
// Universal CRT's header, and _CrtSetReportFile, which does nothing in a
// release build there too. Test build only.
#pragma once
#include_next <crtdbg.h>

#ifndef _CRTDBG_MODE_FILE
typedef void* _HFILE;
#define _CRTDBG_MODE_FILE 0x1
#define _CRTDBG_MODE_DEBUG 0x2
#define _CRTDBG_MODE_WNDW 0x4
#define _CRTDBG_REPORT_MODE -1
#define _CRTDBG_INVALID_HFILE ((_HFILE)(__int64)-1)
#define _CRTDBG_HFILE_ERROR ((_HFILE)(__int64)-2)
#define _CRTDBG_FILE_STDOUT ((_HFILE)(__int64)-4)
#define _CRTDBG_FILE_STDERR ((_HFILE)(__int64)-5)
#define _CRTDBG_REPORT_FILE ((_HFILE)(__int64)-6)
#endif
#if !defined(_DEBUG) && !defined(_CrtSetReportFile)
#define _CrtSetReportFile(type, file) ((_HFILE)0)
#endif
