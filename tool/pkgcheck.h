// The checker for signed firmware packages: command line, container and verdict.
#ifndef PKGCHECK_PKGCHECK_H
#define PKGCHECK_PKGCHECK_H

#include "verify_signature.h"

#include <stdio.h>

// The container's header; every 32-bit word is big-endian in the file.
typedef struct sub_file_info_st {
    PNV_UINT32 ulSubFileID;
    PNV_UINT32 ulSubFileOffset; // counted from the end of the header
    PNV_UINT32 ulSubFileLen;
} SSubFileInfo_S;

typedef struct program_file_header_st {
    PNV_UINT32 ulReserved4RPS;
    PNV_UINT32 ulHeaderCrc; // both checksums are unused
    PNV_UINT32 ulFileID;
    PNV_UINT32 ulVersion;
    PNV_UINT32 ulSubFileNum; // 1: unsigned package, 3: signed package
    SSubFileInfo_S stSubFileInfo[8];
    PNV_CHAR strDescription[224];
    PNV_UINT32 ulLength;
    PNV_UINT32 ulFileCRC;
    PNV_UINT32 ulCompressType;
} SProgramFileHeader_S;

constexpr PNV_UINT32 SUB_FILE_PAYLOAD = 0x00000001;
constexpr PNV_UINT32 SUB_FILE_CMS = 0x10000001;
constexpr PNV_UINT32 SUB_FILE_CRL = 0x10000002;

// The parts of a signed package, as its header locates them: an address may wrap and is checked before use. The root is
// not included.
PELNIC_VERIFY_SIGNATURE_S pkgcheck_locate(const PNV_BYTE* package, const SProgramFileHeader_S* header);

// The inputs of a check, and its results besides the status.
struct PkgcheckJob {
    const PNV_BYTE* pRoot; // the trusted root certificate
    PNV_UINT32 uiRootLength;
    func_pelnic_log_callback log; // may be null
    FILE* out;                    // receives the outcome's line
    PELNIC_ERROR_CODE code;       // the verification's result; 0 if the check did not get that far
};

// Checks a package in memory, at least as long as a header. Returns the status of pkgcheck_run.
int pkgcheck_check(const PNV_BYTE* package, PNV_UINT32 packageLength, PkgcheckJob* job);

// Checks the package that argv[1] names, prints the outcome's line and returns the exit status of main:
// 0 accepted, -1 refused or unreadable, -2 neither one nor three sub-files, -3 refused only by the strict checker, -22
// no path.
int pkgcheck_run(int argc, char** argv);

#endif
