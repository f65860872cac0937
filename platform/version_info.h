// version_info.h: the program's version and the texts of its version resource, stated once.
// The resource compiler reads this file beside C++, so it holds nothing but macros. The Windows build puts them into
// resource 1 of type RT_VERSION, block 040904b0; the hosted backend's GetOwnVersionText answers from them.
#ifndef VORN_VERSION_INFO_H
#define VORN_VERSION_INFO_H

#define VORN_VERSION_NUMBERS 1, 0, 5, 0
#define VORN_VERSION_TEXT "1.0.5.0"
#define VORN_COMPANY_NAME "VORN"
#define VORN_PRODUCT_NAME "VORN Migration"
#define VORN_FILE_DESCRIPTION "VORN Migration Network App"
#define VORN_INTERNAL_NAME "VornTramsaNet"
#define VORN_ORIGINAL_FILENAME "VornTramsaNet.exe"
#define VORN_LEGAL_COPYRIGHT "Copyright (C) VORN"
#define VORN_VERSION_BLOCK "040904b0" // US English, Unicode
#define VORN_VERSION_LANGUAGE 0x0409
#define VORN_VERSION_CODE_PAGE 1200

#endif
