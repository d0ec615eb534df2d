// A binary tree, balanced for any order of insertion (an AA tree: levels are those of a 2-3 tree).
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

// ---- The tree. Recursion is as deep as the tree: at most twice the logarithm of its size.

template <typename Object> static Object* find(Object* root, const Object& wanted)
{
    while (root != nullptr) {
        const PNV_INT result = order(wanted, *root);
        if (result == 0) return root;
        root = result < 0 ? root->pki.pBefore : root->pki.pAfter;
    }
    return nullptr;
}

// Turns a left link within a level into a right one.
template <typename Object> static Object* skew(Object* root)
{
    Object* const left = root->pki.pBefore;
    if (left == nullptr || left->pki.nLevel != root->pki.nLevel) return root;
    root->pki.pBefore = left->pki.pAfter;
    left->pki.pAfter = root;
    return left;
}

// Raises the middle of three nodes on one level.
template <typename Object> static Object* split(Object* root)
{
    Object* const right = root->pki.pAfter;
    if (right == nullptr || right->pki.pAfter == nullptr) return root;
    if (right->pki.pAfter->pki.nLevel != root->pki.nLevel) return root;
    root->pki.pAfter = right->pki.pBefore;
    right->pki.pBefore = root;
    ++right->pki.nLevel;
    return right;
}

template <typename Object> static Object* insert(Object* root, Object* added)
{
    if (root == nullptr) {
        added->pki.pBefore = nullptr;
        added->pki.pAfter = nullptr;
        added->pki.nLevel = 1;
        return added;
    }
    Object*& side = order(*added, *root) < 0 ? root->pki.pBefore : root->pki.pAfter;
    side = insert(side, added);
    return split(skew(root));
}

template <typename List, typename Object>
static Object* findDuplicate(const List& list, const PkiIndex<Object>& index, const Object& wanted)
{
    Object* const indexed = find(index.pRoot, wanted);
    if (indexed != nullptr || index.bIncomplete == 0) return indexed;
    for (PNV_UINT32 i = 0; i < list.num; ++i) {
        if (order(wanted, *list.data[i]) == 0) return list.data[i];
    }
    return nullptr;
}

template <typename Object> static void enter(PkiIndex<Object>* pIndex, Object* added)
{
    if (added->pki.nLevel != 0) { // its links belong to another index
        pIndex->bIncomplete = 1;
    } else {
        pIndex->pRoot = insert(pIndex->pRoot, added);
    }
}

PELNIC_X509_CERT* _pnvFindDuplicateCert(const LIST_TYPE_PELNIC_X509_CERT* list,
                                        const PkiIndex<PELNIC_X509_CERT>* pIndex, const PELNIC_X509_CERT* cert)
{
    return findDuplicate(*list, *pIndex, *cert);
}

PELNIC_X509_CRL* _pnvFindDuplicateCrl(const LIST_TYPE_PELNIC_X509_CRL* list, const PkiIndex<PELNIC_X509_CRL>* pIndex,
                                      const PELNIC_X509_CRL* crl)
{
    return findDuplicate(*list, *pIndex, *crl);
}

void _pnvIndexCert(PkiIndex<PELNIC_X509_CERT>* pIndex, PELNIC_X509_CERT* cert)
{
    enter(pIndex, cert);
}

void _pnvIndexCrl(PkiIndex<PELNIC_X509_CRL>* pIndex, PELNIC_X509_CRL* crl)
{
    enter(pIndex, crl);
}
