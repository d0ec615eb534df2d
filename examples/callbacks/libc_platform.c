/*
 * Shows: what the library asks of the platform, written for a C library without bounds-checked functions. Null
 * arguments and bounds are tested here, since the library leaves that to its callbacks.
 */
#include "libc_platform.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static PELNIC_ERROR_CODE allocate(void** out, PNV_UINT32 size)
{
    *out = NULL;
    if (size == 0) return 0;
    *out = malloc(size);
    return *out == NULL ? PELNIC_ERR_SYS_MEM_ALLOC : 0;
}

static PELNIC_ERROR_CODE fill(void* dest, size_t destMax, PNV_INT c, size_t count)
{
    if (dest == NULL || destMax == 0 || count > destMax) return PELNIC_ERR_NULL_POINTER;
    memset(dest, c, count);
    return 0;
}

/* memmove does for both copies. */
static PELNIC_ERROR_CODE copy(void* dest, size_t destMax, const void* src, size_t count)
{
    if (dest == NULL || src == NULL || destMax == 0 || count > destMax) return PELNIC_ERR_NULL_POINTER;
    memmove(dest, src, count);
    return 0;
}

static PNV_INT compare(const void* a, const void* b, size_t n)
{
    return a == NULL || b == NULL ? -1 : memcmp(a, b, n);
}

static PNV_INT compare_characters(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    return a == NULL || b == NULL ? -1 : strncmp(a, b, n);
}

static const PNV_CHAR* find_text(const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    return hay == NULL || needle == NULL ? NULL : strstr(hay, needle);
}

static PNV_CHAR* find_character(PNV_CHAR* s, PNV_CHAR c)
{
    return s == NULL ? NULL : strchr(s, c);
}

static PNV_UINT32 length_of(const PNV_CHAR* s)
{
    return s == NULL ? 0xFFFFFFFFu : (PNV_UINT32)strlen(s);
}

static PNV_INT compare_texts(const PNV_CHAR* a, const PNV_CHAR* b)
{
    return a == NULL || b == NULL ? -1 : strcmp(a, b);
}

static PELNIC_ERROR_CODE append_at(PNV_CHAR* dest, size_t destMax, size_t used, const PNV_CHAR* src)
{
    const size_t length = strlen(src);
    if (used >= destMax || length >= destMax - used) return PELNIC_ERR_SYS_STR_OVERFLOW;
    memcpy(dest + used, src, length + 1);
    return 0;
}

static PELNIC_ERROR_CODE copy_text(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (dest == NULL || src == NULL || destMax == 0) return PELNIC_ERR_NULL_POINTER;
    return append_at(dest, destMax, 0, src);
}

static PELNIC_ERROR_CODE append_text(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
{
    if (dest == NULL || src == NULL || destMax == 0) return PELNIC_ERR_NULL_POINTER;
    return append_at(dest, destMax, strlen(dest), src);
}

/* A text cut off is a failure, so that the log shows the bare format instead of half a message. */
static PNV_INT format_text(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
{
    if (dest == NULL || format == NULL || destMax == 0) return -1;
    const size_t room = count < destMax ? count + 1 : destMax;
    const int length = vsnprintf(dest, room, format, args);
    return length >= 0 && (size_t)length < room ? length : -1;
}

static PNV_FILE_HANDLE open_file(const PNV_CHAR* path, const PNV_CHAR* mode)
{
    return fopen(path, mode);
}

static size_t read_file(void* buf, size_t size, PNV_FILE_HANDLE h)
{
    return fread(buf, 1, size, h);
}

static PELNIC_ERROR_CODE close_file(PNV_FILE_HANDLE h)
{
    return fclose(h) == 0 ? 0 : PELNIC_ERR_FAILED;
}

static PNV_UINT64 size_of_file(PNV_FILE_HANDLE h)
{
    const long position = ftell(h);
    if (position < 0 || fseek(h, 0, SEEK_END) != 0) return 0xFFFFFFFFu;
    const long size = ftell(h);
    if (size < 0 || fseek(h, position, SEEK_SET) != 0) return 0xFFFFFFFFu;
    return (PNV_UINT64)size;
}

void libc_platform(PELNIC_CALLBACK_FUNCS* funcs)
{
    *funcs = (PELNIC_CALLBACK_FUNCS){
        .st_size = sizeof(PELNIC_CALLBACK_FUNCS),
        .crypt_funcs.size = sizeof(PELNIC_CRYPTO_FUNCS),
        .md_funcs.size = sizeof(PELNIC_MD_FUNCS),
        .plt_funcs =
            {
                .st_size = sizeof(PELNIC_PLT_FUNCS),
                .sys_funcs =
                    {
                        .st_size = sizeof(PELNIC_SYS_FUNCS),
                        .mem_funcs = {allocate, fill, copy, copy, free, compare},
                        .str_funcs = {compare_characters, find_text, find_character, length_of, compare_texts,
                                      copy_text, append_text, format_text},
                        .file_funcs = {open_file, read_file, close_file, size_of_file},
                    },
            },
    };
}
