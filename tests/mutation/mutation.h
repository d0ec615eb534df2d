// One binary with every mutant in it: mutate.py puts a site into each comparison and each result code, and the
// environment variable CMSVERIFY_MUTANT says which of them misbehaves. The operators keep the precedence of those they
// replace: a < b becomes a < PNV_LESS(7) < b.
#ifndef PNV_MUTATION_H
#define PNV_MUTATION_H
#ifdef __cplusplus

#include <cstdlib>

inline int pnvMutant()
{
    static const int mutant = [] {
        const char* const text = std::getenv("CMSVERIFY_MUTANT");
        return text == nullptr ? -1 : std::atoi(text);
    }();
    return mutant;
}

template <typename Code> Code pnvCode(int site, Code code, Code other)
{
    return pnvMutant() == site ? other : code;
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
    template <typename L, typename R> bool operator op(NAME##Left<L> at, R right) \
    { \
        if (pnvMutant() == at.site) return !(at.left op right); \
        if (pnvMutant() == at.site + 1) return at.left moved right; \
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
