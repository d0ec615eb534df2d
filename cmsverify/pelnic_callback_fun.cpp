// The default callbacks. Arguments are checked here before the platform's functions see them, so that no violated bound
// reaches the constraint handler of the bounds-checked ones. The ordinary functions fill and copy memory: the
// bounds-checked ones work octet by octet, and refuse more than 256 MiB.
#include "pelnic_callback_fun.h"

#include <fcntl.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pelnic_huge_pages.h"

PELNIC_ERROR_CODE pnv_malloc_impl(void** out, PNV_UINT32 size)
{
    *out = nullptr;
    if (size == 0) return 0;
    if (size < PNV_HUGE_PAGES_FROM) {
        *out = malloc(size);
    } else if (posix_memalign(out, PNV_HUGE_PAGE, size) != 0) {
        *out = nullptr;
    }
    if (*out == nullptr) return PELNIC_ERR_SYS_MEM_ALLOC;
    _pnvPreparePages(*out, size);
    return 0;
}

PELNIC_ERROR_CODE pnv_memset_s_impl(void* dest, size_t destMax, PNV_INT c, size_t count)
{
    if (dest == nullptr || destMax == 0 || count > destMax) return PELNIC_ERR_NULL_POINTER;
    memset(dest, c, count);
    return 0;
}

static bool isCopyable(const void* dest, size_t destMax, const void* src, size_t count)
{
    return destMax != 0 && count <= destMax && dest != nullptr && src != nullptr;
}

PELNIC_ERROR_CODE pnv_memmove_s_impl(void* dest, size_t destMax, const void* src, size_t count)
{
    if (!isCopyable(dest, destMax, src, count)) return PELNIC_ERR_NULL_POINTER;
    memmove(dest, src, count);
    return 0;
}

static bool overlap(const void* dest, const void* src, size_t count)
{
    const uintptr_t to = reinterpret_cast<uintptr_t>(dest);
    const uintptr_t from = reinterpret_cast<uintptr_t>(src);
    return (to < from ? from - to : to - from) < count;
}

PELNIC_ERROR_CODE pnv_memcpy_s_impl(void* dest, size_t destMax, const void* src, size_t count)
{
    if (!isCopyable(dest, destMax, src, count)) return PELNIC_ERR_NULL_POINTER;
    if (overlap(dest, src, count)) return static_cast<PELNIC_ERROR_CODE>(memcpy_s(dest, destMax, src, count));
    memcpy(dest, src, count);
    return 0;
}

void pnv_free_impl(void* p)
{
    free(p);
}

PNV_INT pnv_memcmp_impl(const void* a, const void* b, size_t n)
{
    return a == nullptr || b == nullptr ? -1 : memcmp(a, b, n);
}

PNV_INT pnv_strncmp_impl(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    return a == nullptr || b == nullptr ? -1 : strncmp(a, b, n);
}

const PNV_CHAR* pnv_strstr_impl(const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    return hay == nullptr || needle == nullptr ? nullptr : strstr(hay, needle);
}

PNV_CHAR* pnv_strchr_impl(PNV_CHAR* s, PNV_CHAR c)
{
    return s == nullptr ? nullptr : strchr(s, c & 0xFF);
}

PNV_UINT32 pnv_strlen_impl(const PNV_CHAR* s)
{
    return s == nullptr ? 0xFFFFFFFFu : static_cast<PNV_UINT32>(strlen(s));
}

PNV_INT pnv_strcmp_impl(const PNV_CHAR* a, const PNV_CHAR* b)
{
    if (a == nullptr || b == nullptr) return -1;
    if (a == b) return 0;
    const size_t length = strlen(a);
    return length != strlen(b) ? -1 : strncmp(a, b, length);
}

PELNIC_ERROR_CODE pnv_strcpy_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (destMax == 0 || dest == nullptr || src == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<PELNIC_ERROR_CODE>(strcpy_s(dest, destMax, src));
}

PELNIC_ERROR_CODE pnv_strcat_s_impl(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (destMax == 0 || dest == nullptr || src == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<PELNIC_ERROR_CODE>(strcat_s(dest, destMax, src));
}

PNV_INT pnv_vsnprintf_s_impl(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
{
    if (dest == nullptr || format == nullptr) return static_cast<PNV_INT>(PELNIC_ERR_NULL_POINTER);
    if (destMax == 0) return -1;
    // The platform's function knows only the size of the destination. For a text that is one character too long it
    // returns the length, for a longer one a code and an empty text; the ordinary function then writes the part that
    // fits. Any other refusal leaves no text.
    const size_t room = count < destMax ? count + 1 : destMax;
    va_list again;
    va_copy(again, args);
    const PNV_INT length = vsnprintf_s(dest, room, format, args);
    const bool fits = length >= 0 && static_cast<size_t>(length) < room;
    if (length == -ESNOSPC) {
        (void)vsnprintf(dest, room, format, again); // NOLINT(clang-analyzer-valist.Uninitialized): copied above
    } else if (length < 0) {
        dest[0] = '\0';
    }
    va_end(again);
    return fits ? length : -1;
}

PNV_FILE_HANDLE pnv_fopen_impl(const PNV_CHAR* path, const PNV_CHAR* mode)
{
    if (mode[0] != 'r' || strchr(mode, '+') != nullptr) return fopen(path, mode);
    // Opening a FIFO without a writer for reading would block for ever. It is opened without waiting, and then read
    // like any other file, up to the end of its writers' data.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    FILE* const stream = fcntl(fd, F_SETFL, O_RDONLY) == 0 ? fdopen(fd, mode) : nullptr;
    if (stream == nullptr) close(fd);
    return stream;
}

size_t _pnv_fread_impl(void* buf, size_t size, PNV_FILE_HANDLE h)
{
    return fread(buf, 1, size, static_cast<FILE*>(h));
}

PELNIC_ERROR_CODE _pnv_fclose_impl(PNV_FILE_HANDLE h)
{
    return static_cast<PELNIC_ERROR_CODE>(fclose(static_cast<FILE*>(h)));
}

PNV_UINT64 _pnv_get_file_size_impl(PNV_FILE_HANDLE h)
{
    FILE* const stream = static_cast<FILE*>(h);
    if (stream == nullptr) return 0xFFFFFFFFu;
    const long position = ftell(stream);
    if (position < 0) return 0xFFFFFFFFu;
    (void)fseek(stream, 0, SEEK_END);
    const PNV_INT64 size = ftell(stream);
    (void)fseek(stream, position, SEEK_SET);
    return static_cast<PNV_UINT64>(size);
}

static const PNV_CHAR* levelTag(PELNIC_LOG_TYPE log_level)
{
    switch (log_level) {
    case PELNIC_LOG_TYPE_ERROR: return "[ERROR]";
    case PELNIC_LOG_TYPE_WARNING: return "[WARNING]";
    case PELNIC_LOG_TYPE_INFO: return "[INFO]";
    case PELNIC_LOG_TYPE_DEBUG: return "[DEBUG]";
    default: return "";
    }
}

void _pnv_build_log_line(PNV_CHAR (&line_buf)[1024], PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                         PELNIC_ERROR_CODE rc, const PNV_CHAR* log)
{
    size_t used = 0;
    const auto advance = [&](int length) {
        if (length > 0) used += static_cast<size_t>(length);
        if (used >= sizeof line_buf) used = sizeof line_buf - 1; // the piece was truncated
    };
    advance(snprintf(line_buf, sizeof line_buf, "%s", levelTag(log_level)));
    advance(snprintf(line_buf + used, sizeof line_buf - used, "%s(%d):%s", filename, line, log == nullptr ? "" : log));
    if (rc != 0) advance(snprintf(line_buf + used, sizeof line_buf - used, "(err:%x)", rc));
}

void _pnv_log_callback_impl(PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line, const PNV_CHAR*,
                            PNV_THREAD_ID, PNV_TIME_T, PELNIC_ERROR_CODE rc, const PNV_CHAR* log)
{
    PNV_CHAR line_buf[1024] = {};
    _pnv_build_log_line(line_buf, log_level, filename, line, rc, log);
}

PNV_UINT32 pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs)
{
    if (funcs == nullptr) return 1;
    *funcs = PELNIC_CALLBACK_FUNCS{};
    funcs->st_size = sizeof(PELNIC_CALLBACK_FUNCS);
    funcs->plt_funcs.st_size = sizeof(PELNIC_PLT_FUNCS);
    funcs->plt_funcs.sys_funcs.st_size = sizeof(PELNIC_SYS_FUNCS);
    funcs->plt_funcs.sys_funcs.mem_funcs = {pnv_malloc_impl,   pnv_memset_s_impl, pnv_memmove_s_impl,
                                            pnv_memcpy_s_impl, pnv_free_impl,     pnv_memcmp_impl};
    funcs->plt_funcs.sys_funcs.str_funcs = {pnv_strncmp_impl,  pnv_strstr_impl,     pnv_strchr_impl,
                                            pnv_strlen_impl,   pnv_strcmp_impl,     pnv_strcpy_s_impl,
                                            pnv_strcat_s_impl, pnv_vsnprintf_s_impl};
    funcs->plt_funcs.sys_funcs.file_funcs = {pnv_fopen_impl, _pnv_fread_impl, _pnv_fclose_impl,
                                             _pnv_get_file_size_impl};
    // No thread identity, clock or date conversion: sys_funcs.plt_funcs stays empty.
    funcs->plt_funcs.log_funcs.log_func = _pnv_log_callback_impl;
    _pnvSetCryptoCallbacks(funcs);
    return 0;
}
