// Reads a whole package, interprets its header and passes the octet ranges to the verification.
#include "pkgcheck.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <safe_mem_lib.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cmsverify/pelnic_huge_pages.h"
#include "root_cert.h"
#include "rules.h"
#include "verify_signature.h"

constexpr PNV_UINT32 HEADER_SIZE = 352;
constexpr PNV_UINT32 SIGNED_SUB_FILES = 3;
constexpr size_t NAME_SIZE = 64;

static_assert(sizeof(SProgramFileHeader_S) == HEADER_SIZE, "the header is laid out as in the file");

constexpr int REFUSED = -1;
constexpr int BAD_SUB_FILE_NUM = -2;
constexpr int NOT_STRICT = -3;
constexpr int BAD_ARGUMENT = -22;

// Ends the check of an otherwise good package with the verdict of the rules; acceptance is the line for success.
static int conclude(const PkgcheckJob* job, const char* refusal, const char* acceptance)
{
    if (refusal != nullptr) {
        (void)fprintf(job->out, "Strict: %s\n", refusal);
        return NOT_STRICT;
    }
    (void)fputs(acceptance, job->out);
    return 0;
}

// A zeroed buffer; calloc knows that fresh pages are zero.
static PNV_BYTE* newBuffer(PNV_UINT32 size)
{
    void* const buffer = calloc(size, 1);
    if (buffer != nullptr) _pnvPreparePages(buffer, size);
    return static_cast<PNV_BYTE*>(buffer);
}

// Reads a whole file. If the result is 0, the caller frees the buffer.
static int readPackage(const char* filename, PNV_BYTE** pBuffer, PNV_UINT32* pLength)
{
    // Without O_NONBLOCK a FIFO without a writer would block the checker for ever.
    const int fd = open(filename, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        printf("Failed to open file(name %s err %d)\n", filename, errno);
        return REFUSED;
    }
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end >= 0 && end < off_t{HEADER_SIZE}) {
        printf("Failed to check file length(len %d)\n", static_cast<int>(end));
        close(fd);
        return REFUSED;
    }
    // An unknown length counts as 4294967295, which cannot be allocated.
    const bool allocatable = end >= 0 && end <= off_t{0xFFFFFFFF};
    const PNV_UINT32 uiFileLen = static_cast<PNV_UINT32>(end);
    PNV_BYTE* const buffer = allocatable ? newBuffer(uiFileLen) : nullptr;
    if (buffer == nullptr) {
        puts("Failed to alloc memory");
        close(fd);
        return REFUSED;
    }
    (void)lseek(fd, 0, SEEK_SET);
    const ssize_t got = read(fd, buffer, uiFileLen);
    close(fd);
    if (got < 0 || static_cast<size_t>(got) != uiFileLen) {
        printf("Failed to read file(%s)\n", filename);
        free(buffer);
        return REFUSED;
    }
    *pBuffer = buffer;
    *pLength = uiFileLen;
    return 0;
}

// The address of a sub-file according to the header: it may wrap and is range-checked before use.
static const PNV_BYTE* subFileAddress(const PNV_BYTE* package, PNV_UINT32 offset)
{
    return reinterpret_cast<const PNV_BYTE*>(reinterpret_cast<uintptr_t>(package) + HEADER_SIZE + offset);
}

// Of two entries with one type the later one counts; unknown types are ignored.
PELNIC_VERIFY_SIGNATURE_S pkgcheck_locate(const PNV_BYTE* package, const SProgramFileHeader_S* header)
{
    PELNIC_VERIFY_SIGNATURE_S sig = {};
    for (PNV_UINT32 i = 0; i < SIGNED_SUB_FILES; ++i) {
        const SSubFileInfo_S& entry = header->stSubFileInfo[i];
        const PNV_BYTE* const start = subFileAddress(package, ntohl(entry.ulSubFileOffset));
        const PNV_UINT32 length = ntohl(entry.ulSubFileLen);
        switch (ntohl(entry.ulSubFileID)) {
        case SUB_FILE_PAYLOAD:
            sig.pBin = start;
            sig.uiBinLength = length;
            break;
        case SUB_FILE_CMS:
            sig.pCms = start;
            sig.uiCmsLength = length;
            break;
        case SUB_FILE_CRL:
            sig.pCrl = start;
            sig.uiCrlLength = length;
            break;
        default: break;
        }
    }
    return sig;
}

// Whether all octets of a sub-file, if it has any, lie inside the package.
static bool isInside(const PNV_BYTE* package, PNV_UINT32 packageLength, const PNV_BYTE* start, PNV_UINT32 length)
{
    if (length == 0) return true;
    // Address arithmetic wraps on 32 bits, and so does this difference: it is 352 + offset again only for true values.
    const uintptr_t position = reinterpret_cast<uintptr_t>(start) - reinterpret_cast<uintptr_t>(package);
    return position >= HEADER_SIZE && PNV_UINT64{position} + length <= packageLength;
}

static int checkSignedPackage(const PNV_BYTE* package, PNV_UINT32 packageLength, const SProgramFileHeader_S* header,
                              PkgcheckJob* job)
{
    PELNIC_VERIFY_SIGNATURE_S sig = pkgcheck_locate(package, header);
    sig.pCert = job->pRoot;
    sig.uiCertLength = job->uiRootLength;
    if (sig.uiCmsLength == 0) return conclude(job, pkgcheck_unsigned_refusal(), ""); // accepted silently, by design
    if (sig.pCms == nullptr || sig.uiBinLength == 0 || sig.pBin == nullptr) {
        (void)fprintf(job->out, "Check cms fail for no sub file, bin %p %#x cms %p %#x\n",
                      static_cast<const void*>(sig.pBin), sig.uiBinLength, static_cast<const void*>(sig.pCms),
                      sig.uiCmsLength);
        return REFUSED;
    }
    const bool inside = isInside(package, packageLength, sig.pCms, sig.uiCmsLength) &&
                        isInside(package, packageLength, sig.pBin, sig.uiBinLength) &&
                        isInside(package, packageLength, sig.pCrl, sig.uiCrlLength);
    job->code = inside ? Pelnic_Verify_Signature_Logged(&sig, job->log) : PELNIC_ERR_FAILED;
    const char* const stopped = inside && job->code != 0 ? pkgcheck_work_refusal() : nullptr;
    if (stopped != nullptr) {
        job->code = 0; // whatever the library returned for a check without an answer
        return conclude(job, stopped, "");
    }
    if (job->code != 0) {
        (void)fprintf(job->out, "Check cms file fail for file(err 0x%x)\n", job->code);
        return REFUSED;
    }
    return conclude(job, pkgcheck_signature_refusal(&sig), "");
}

int pkgcheck_check(const PNV_BYTE* package, PNV_UINT32 packageLength, PkgcheckJob* job)
{
    SProgramFileHeader_S header;
    memcpy(&header, package, sizeof header);
    const PNV_UINT32 subfilenum = ntohl(header.ulSubFileNum);
    if (subfilenum == 1) { // unsigned, by design
        return conclude(job, pkgcheck_unsigned_refusal(), "Info: There is one subfile, Check signature passed\n");
    }
    if (subfilenum != SIGNED_SUB_FILES) {
        (void)fprintf(job->out, "Error: Check cms fail for subfile num(%ld) is invalid\n",
                      static_cast<long>(static_cast<PNV_INT32>(subfilenum)));
        return BAD_SUB_FILE_NUM;
    }
    return checkSignedPackage(package, packageLength, &header, job);
}

int pkgcheck_run(int argc, char** argv)
{
    if (argc < 2 || argv[1] == nullptr) {
        puts("Invalid arg count");
        return BAD_ARGUMENT;
    }
    // For a path that does not fit the name stays empty, and opening it fails with errno 2.
    char filename[NAME_SIZE + 1] = {};
    (void)memcpy_s(filename, NAME_SIZE, argv[1], strlen(argv[1]));

    PNV_BYTE* package = nullptr;
    PNV_UINT32 packageLength = 0;
    int status = readPackage(filename, &package, &packageLength);
    if (status != 0) return status;
    PkgcheckJob job = {szCert_F, szCert_F_size, nullptr, stdout, 0};
    status = pkgcheck_check(package, packageLength, &job);
    free(package);
    return status;
}
