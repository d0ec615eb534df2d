// A balanced binary tree (an AA tree: levels are those of a 2-3 tree) whatever order the objects come in.
#include "pelnic_pki_index.h"

// ---- Orders: negative, 0 or positive

template <typename Number> static PNV_INT orderNumbers(Number a, Number b)
{
    return a == b ? 0 : a < b ? -1 : 1;
}

static PNV_INT order(const PELNIC_BER_TAG& a, const PELNIC_BER_TAG& b)
{
    PNV_INT result = orderNumbers(a.code, b.code);
    if (result == 0) result = orderNumbers(a.cls, b.cls);
    return result != 0 ? result : orderNumbers(a.form, b.form);
}

static PNV_INT orderOctets(const PNV_BYTE* a, const PNV_BYTE* b, PNV_UINT32 length)
{
    PNV_INT result = 0;
    for (PNV_UINT32 i = 0; i < length && result == 0; ++i) result = orderNumbers(a[i], b[i]);
    return result;
}

static PNV_INT order(const PELNIC_ASN_OCTS& a, const PELNIC_ASN_OCTS& b)
{
    PNV_INT result = orderNumbers(a.len, b.len);
    if (result == 0) result = order(a.tag, b.tag);
    return result != 0 ? result : orderOctets(a.octs, b.octs, a.len);
}

static PNV_INT order(const PELNIC_ASN_BITS& a, const PELNIC_ASN_BITS& b)
{
    PNV_INT result = orderNumbers(a.byteLen, b.byteLen);
    if (result == 0) result = order(a.tag, b.tag);
    return result != 0 ? result : orderOctets(a.bits, b.bits, a.byteLen);
}

static PNV_INT order(const PELNIC_X509_ATTR_ENTRY& a, const PELNIC_X509_ATTR_ENTRY& b)
{
    const PNV_INT result = order(a.id, b.id);
    return result != 0 ? result : order(a.value, b.value);
}

template <typename List> static PNV_INT orderElements(const List& a, const List& b);

static PNV_INT order(const PELNIC_X509_ATTR_BUNDLE& a, const PELNIC_X509_ATTR_BUNDLE& b)
{
    return orderElements(a.attrs, b.attrs);
}

template <typename List> static PNV_INT orderElements(const List& a, const List& b)
{
    PNV_INT result = orderNumbers(a.num, b.num);
    for (PNV_UINT32 i = 0; i < a.num && result == 0; ++i) result = order(*a.data[i], *b.data[i]);
    return result;
}

static PNV_INT order(const PELNIC_X509_CERT& a, const PELNIC_X509_CERT& b)
{
    const PELNIC_X509_CERTINFO& infoA = *a.toBeSigned;
    const PELNIC_X509_CERTINFO& infoB = *b.toBeSigned;
    PNV_INT result = order(*infoA.serialNumber, *infoB.serialNumber);
    if (result == 0) result = orderElements(infoA.issuer->names, infoB.issuer->names);
    return result != 0 ? result : order(infoA.subjectPubKey->subjectPublicKey, infoB.subjectPubKey->subjectPublicKey);
}

static PNV_INT order(const PELNIC_X509_CRL& a, const PELNIC_X509_CRL& b)
{
    return order(*a.signature, *b.signature);
}

// ---- The tree. Recursion is as deep as the tree, which is twice the logarithm of its size at most.

template <typename Object> static Object* find(Object* root, const Object& wanted)
{
    while (root != nullptr) {
        const PNV_INT result = order(wanted, *root);
        if (result == 0) return root;
        root = result < 0 ? root->index.pBefore : root->index.pAfter;
    }
    return nullptr;
}

// Turns a link to the left on one level into one to the right.
template <typename Object> static Object* skew(Object* root)
{
    Object* const left = root->index.pBefore;
    if (left == nullptr || left->index.nLevel != root->index.nLevel) return root;
    root->index.pBefore = left->index.pAfter;
    left->index.pAfter = root;
    return left;
}

// Raises the middle one of three on one level.
template <typename Object> static Object* split(Object* root)
{
    Object* const right = root->index.pAfter;
    if (right == nullptr || right->index.pAfter == nullptr) return root;
    if (right->index.pAfter->index.nLevel != root->index.nLevel) return root;
    root->index.pAfter = right->index.pBefore;
    right->index.pBefore = root;
    ++right->index.nLevel;
    return right;
}

template <typename Object> static Object* insert(Object* root, Object* added)
{
    if (root == nullptr) {
        added->index = {nullptr, nullptr, 1};
        return added;
    }
    Object*& side = order(*added, *root) < 0 ? root->index.pBefore : root->index.pAfter;
    side = insert(side, added);
    return split(skew(root));
}

PELNIC_X509_CERT* _pnvFindDuplicateCert(PELNIC_X509_CERT* index, const PELNIC_X509_CERT* cert)
{
    return find(index, *cert);
}

PELNIC_X509_CRL* _pnvFindDuplicateCrl(PELNIC_X509_CRL* index, const PELNIC_X509_CRL* crl)
{
    return find(index, *crl);
}

void _pnvIndexCert(PELNIC_X509_CERT** pIndex, PELNIC_X509_CERT* cert)
{
    *pIndex = insert(*pIndex, cert);
}

void _pnvIndexCrl(PELNIC_X509_CRL** pIndex, PELNIC_X509_CRL* crl)
{
    *pIndex = insert(*pIndex, crl);
}
