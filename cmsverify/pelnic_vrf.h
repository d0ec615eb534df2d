// The verify context, first argument of every operation of the library.
#ifndef PELNIC_VRF_H
#define PELNIC_VRF_H

#include "pelnic_types.h"

typedef struct pelnic_x509_crl_st PELNIC_X509_CRL;
typedef struct pelnic_verify_digest_info_st PELNIC_VERIFY_DIGEST_INFO;

PNV_DECLARE_LIST(PELNIC_X509_CRL);
PNV_DECLARE_LIST(PELNIC_VERIFY_DIGEST_INFO);

typedef void* PELNIC_PKI_CTX; // a PELNIC_PKI

typedef struct pelnic_verify_process_st {
    LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO md_info_list;
} PELNIC_VERIFY_PROCESS;

// The run in progress, if there is one. Only class OperationRun writes it.
struct RunCounts {
    PNV_UINT64 nNumber; // of the current or last run
    PNV_UINT32 nInProgress;
    PNV_UINT32 nFaultsBefore; // nCallbackFaults at its begin
};

struct pelnic_vrf_st {
    size_t st_size;
    PNV_BOOL crl_frozen; // set by the first begin: no more CRLs can be added
    PELNIC_CALLBACK_FUNCS callback_funcs;
    PELNIC_VRF_PARAMS vrf_params;
    PELNIC_PKI_CTX pki_ctx;
    LIST_TYPE_PELNIC_X509_CRL crl_list; // added, not yet passed to the PKI object
    PELNIC_VERIFY_PROCESS vrf_proc;
    PNV_TIME_T base_time; // the time at which everything is judged
    PELNIC_ERROR_CODE last_err;
    PNV_INT curr_depth; // nested certificate verifications in progress
    PNV_BYTE resv[64];
    mutable PNV_UINT32 nCallbackFaults; // failing callbacks so far; see pelnic_faults.h
    mutable CarvedBlocks* pCarving;     // the source of allocations unless null; see Carving
    PNV_BOOL bInputLost;                // one of them cost a certificate or CRL for good
    mutable RunCounts run;
    PNV_UINT32 nVerificationsInProgress; // calls of pelnic_pki_verify_cert, the nested ones included
    PNV_UINT32 nVerification;            // number of the current or last outermost one
};

#endif
