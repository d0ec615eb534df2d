// One binary with every mutant in it: mutate.py puts a site wherever something could be mistaken, and the environment
// variable CMSVERIFY_MUTANT says which of them misbehaves. With CMSVERIFY_MUTANT_LOG the numbers of all sites that are
// reached are appended to that file instead. The operators keep the precedence of those they replace: a < b becomes
// a < PNV_LESS{7} < b.
#ifndef PNV_MUTATION_H
#define PNV_MUTATION_H
#ifdef __cplusplus

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <type_traits>

constexpr int PNV_SITES = 1 << 16;

inline int pnvMutant()
{
    static const int mutant = [] {
        const char* const text = std::getenv("CMSVERIFY_MUTANT");
        return text == nullptr ? -1 : std::atoi(text);
    }();
    return mutant;
}

inline void pnvReach(int site)
{
    static const int log = [] {
        const char* const path = std::getenv("CMSVERIFY_MUTANT_LOG");
        return path == nullptr ? -1 : open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    }();
    static bool reached[PNV_SITES];
    if (log < 0 || reached[site]) return;
    reached[site] = true;
    char line[16];
    const int length = std::snprintf(line, sizeof line, "%d\n", site);
    if (write(log, line, static_cast<size_t>(length)) != length) std::abort();
}

// Whether this is the one that misbehaves.
inline bool pnvIs(int site)
{
    pnvReach(site);
    return pnvMutant() == site;
}

template <typename Code> Code pnvCode(int site, Code code, Code other)
{
    return pnvIs(site) ? other : code;
}

// One more or less.
template <typename Number> Number pnvOff(int site, Number number)
{
    if constexpr (std::is_integral_v<Number>) {
        if (pnvIs(site)) return static_cast<Number>(number + 1);
        if (pnvIs(site + 1)) return static_cast<Number>(number - 1);
    }
    return number;
}

// The other of two arguments of one type. No copies: what is called may return a reference to a part of its argument.
template <typename A, typename B> A&& pnvFirst(int site, A&& a, B&& b)
{
    if constexpr (std::is_same_v<std::decay_t<A>, std::decay_t<B>> && std::is_convertible_v<B, A>) {
        if (pnvIs(site)) return static_cast<A&&>(b);
    }
    return static_cast<A&&>(a);
}

// NAME: the site's type; op: the operator replaced; the mutants are site (negated) and site + 1 (the bound moved).
#define PNV_SITE(NAME, op, moved) \
    struct NAME { \
        int site; \
    }; \
    template <typename L> struct NAME##Left { \
        L left; \
        int site; \
    }; \
    template <typename L> NAME##Left<L> operator op(L left, NAME at) \
    { \
        return {left, at.site}; \
    } \
    template <typename L, typename R> bool operator op(NAME##Left<L> at, const R& right) \
    { \
        if (pnvIs(at.site)) return !(at.left op right); \
        if (pnvIs(at.site + 1)) return at.left moved right; \
        return at.left op right; \
    }

PNV_SITE(PNV_EQUAL, ==, ==)
PNV_SITE(PNV_UNEQUAL, !=, !=)
PNV_SITE(PNV_LESS, <, <=)
PNV_SITE(PNV_MORE, >, >=)
PNV_SITE(PNV_AT_MOST, <=, <)
PNV_SITE(PNV_AT_LEAST, >=, >)

#endif
#endif
