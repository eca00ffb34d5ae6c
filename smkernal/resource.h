// String resource numbers of the scan module.
#pragma once

#define IDS_AUTHOR 20000
#define IDS_VERSION_FORMAT 20001
#define IDS_COMPANY 20002
#define IDS_WARNING_CAPTION 20003
#define IDS_ERROR_CAPTION 20004
#define IDS_INVALID_PIXEL_TYPE 20005
#define IDS_MORE_PAGES 20006
