#include "callbacks.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <tuple>

namespace pnvtest {

namespace {

// Neither zero nor a plausible length, pointer or count.
constexpr int kFreshBlock = 0xA5;
constexpr int kFreedBlock = 0xDD;

thread_local CallbackPlan* t_plan = nullptr;

CallbackPlan& Plan()
{
    if (t_plan == nullptr) Misuse("a callback was called after its plan had ended");
    return *t_plan;
}

Bytes Magnitude(const PELNIC_BIGINT& number)
{
    return Bytes(number.aVal, number.aVal + number.uiLength);
}

PELNIC_BIGINT Number(const Bytes& magnitude)
{
    PELNIC_BIGINT number{Len(magnitude), {}};
    std::copy(magnitude.begin(), magnitude.end(), number.aVal);
    return number;
}

std::string TextOrEmpty(const PNV_CHAR* text)
{
    return text == nullptr ? std::string() : std::string(text);
}

} // namespace

struct CallbackPlan::Hooks {
    static PELNIC_SYS_MEM_FUNCS& Mem(CallbackPlan& plan) { return plan.defaults_.plt_funcs.sys_funcs.mem_funcs; }
    static PELNIC_SYS_STR_FUNCS& Str(CallbackPlan& plan) { return plan.defaults_.plt_funcs.sys_funcs.str_funcs; }
    static PELNIC_SYS_FILE_FUNCS& File(CallbackPlan& plan) { return plan.defaults_.plt_funcs.sys_funcs.file_funcs; }
    static PELNIC_MD_FUNCS& Md(CallbackPlan& plan) { return plan.defaults_.md_funcs; }
    static PELNIC_CRYPTO_FUNCS& Crypt(CallbackPlan& plan) { return plan.defaults_.crypt_funcs; }

    // ---- Memory ----

    static PELNIC_ERROR_CODE Malloc(void** out, PNV_UINT32 size)
    {
        CallbackPlan& plan = Plan();
        plan.largestRequest_ = std::max<std::size_t>(plan.largestRequest_, size);
        *out = nullptr;
        if (plan.Fails(Call::Malloc)) return PELNIC_ERR_SYS_MEM_ALLOC;
        const PELNIC_ERROR_CODE rc = Mem(plan).malloc(out, size);
        if (*out == nullptr) return rc;
        std::memset(*out, kFreshBlock, size);
        plan.blocks_[*out] = size;
        plan.liveBytes_ += size;
        plan.peakBytes_ = std::max(plan.peakBytes_, plan.liveBytes_);
        return rc;
    }

    static PELNIC_ERROR_CODE Memset(void* dest, size_t destMax, PNV_INT c, size_t count)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Memset) ? injectedFault : Mem(plan).memset_s(dest, destMax, c, count);
    }

    static PELNIC_ERROR_CODE Memmove(void* dest, size_t destMax, const void* src, size_t count)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Memmove) ? injectedFault : Mem(plan).memmove_s(dest, destMax, src, count);
    }

    static PELNIC_ERROR_CODE Memcpy(void* dest, size_t destMax, const void* src, size_t count)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Memcpy) ? injectedFault : Mem(plan).memcpy_s(dest, destMax, src, count);
    }

    static void Free(void* p)
    {
        CallbackPlan& plan = Plan();
        (void)plan.Fails(Call::Free);
        if (!plan.Known(plan.blocks_, p, "free")) return;
        const auto block = plan.blocks_.find(p);
        std::memset(p, kFreedBlock, block->second);
        plan.liveBytes_ -= block->second;
        plan.blocks_.erase(block);
        Mem(plan).free(p);
    }

    static PNV_INT Memcmp(const void* a, const void* b, size_t n)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Memcmp) ? -1 : Mem(plan).memcmp(a, b, n);
    }

    // ---- Strings ----

    static PNV_INT Strncmp(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strncmp) ? -1 : Str(plan).pf_strncmp(a, b, n);
    }

    static const PNV_CHAR* Strstr(const PNV_CHAR* hay, const PNV_CHAR* needle)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strstr) ? nullptr : Str(plan).pf_strstr(hay, needle);
    }

    static PNV_CHAR* Strchr(PNV_CHAR* s, PNV_CHAR c)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strchr) ? nullptr : Str(plan).pf_strchr(s, c);
    }

    static PNV_UINT32 Strlen(const PNV_CHAR* s)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strlen) ? 0 : Str(plan).pf_strlen(s);
    }

    static PNV_INT Strcmp(const PNV_CHAR* a, const PNV_CHAR* b)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strcmp) ? -1 : Str(plan).pf_strcmp(a, b);
    }

    static PELNIC_ERROR_CODE Strcpy(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strcpy) ? injectedFault : Str(plan).pf_strcpy_s(dest, destMax, src);
    }

    static PELNIC_ERROR_CODE Strcat(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Strcat) ? injectedFault : Str(plan).pf_strcat_s(dest, destMax, src);
    }

    static PNV_INT Vsnprintf(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format, va_list args)
    {
        CallbackPlan& plan = Plan();
        return plan.Fails(Call::Vsnprintf) ? -1 : Str(plan).pf_vsnprintf_s(dest, destMax, count, format, args);
    }

    // ---- Files ----

    static PNV_FILE_HANDLE Fopen(const PNV_CHAR* path, const PNV_CHAR* mode)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::Fopen)) return nullptr;
        const PNV_FILE_HANDLE file = File(plan).fopen(path, mode);
        if (file != nullptr) plan.files_.insert(file);
        return file;
    }

    static size_t Fread(void* buf, size_t size, PNV_FILE_HANDLE file)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::Fread)) size /= 2;
        return plan.Known(plan.files_, file, "fread") ? File(plan).fread(buf, size, file) : 0;
    }

    static PELNIC_ERROR_CODE Fclose(PNV_FILE_HANDLE file)
    {
        CallbackPlan& plan = Plan();
        const bool fails = plan.Fails(Call::Fclose);
        if (!plan.Known(plan.files_, file, "fclose")) return injectedFault;
        plan.files_.erase(file);
        const PELNIC_ERROR_CODE rc = File(plan).fclose(file);
        return fails ? injectedFault : rc;
    }

    static PNV_UINT64 FileSize(PNV_FILE_HANDLE file)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::FileSize) || !plan.Known(plan.files_, file, "get_file_size")) return 0xFFFFFFFFu;
        return File(plan).get_file_size(file);
    }

    // ---- Clock and log ----

    static PNV_THREAD_ID ThreadId()
    {
        (void)Plan().Fails(Call::ThreadId);
        return Plan().thread_;
    }

    static PNV_TIME_T UtcTime()
    {
        (void)Plan().Fails(Call::UtcTime);
        return Plan().now_;
    }

    static void Log(PELNIC_LOG_TYPE level, const PNV_CHAR* file, PNV_INT line, const PNV_CHAR* function,
                    PNV_THREAD_ID thread, PNV_TIME_T time, PELNIC_ERROR_CODE rc, const PNV_CHAR* message)
    {
        (void)Plan().Fails(Call::Log);
        LogRecord record{level, TextOrEmpty(file), line, TextOrEmpty(function), thread, time, rc, std::nullopt};
        if (message != nullptr) record.message = message;
        Plan().logs_.push_back(std::move(record));
    }

    // ---- Digests ----

    static PELNIC_ERROR_CODE MdCreate(PELNIC_CRYPTO_MD_CTX* out)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::MdCreate)) return PELNIC_ERR_FAILED;
        const PELNIC_ERROR_CODE rc = Md(plan).pelnic_md_ctx_create(out);
        if (rc == 0) plan.digests_.insert(*out);
        return rc;
    }

    static PELNIC_ERROR_CODE MdInit(PELNIC_CRYPTO_MD_CTX md, PNV_UINT32 hashId)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::MdInit) || !plan.Known(plan.digests_, md, "md_init")) return PELNIC_ERR_FAILED;
        return Md(plan).pelnic_md_init(md, hashId);
    }

    static PELNIC_ERROR_CODE MdUpdate(PELNIC_CRYPTO_MD_CTX md, const PNV_BYTE* data, PNV_UINT32 len)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::MdUpdate) || !plan.Known(plan.digests_, md, "md_update")) return PELNIC_ERR_FAILED;
        return Md(plan).pelnic_md_update(md, data, len);
    }

    static PELNIC_ERROR_CODE MdFinal(PELNIC_CRYPTO_MD_CTX md, PNV_BYTE* digest, PNV_UINT32* len)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::MdFinal) || !plan.Known(plan.digests_, md, "md_final")) return PELNIC_ERR_FAILED;
        return Md(plan).pelnic_md_final(md, digest, len);
    }

    static void MdDestroy(PELNIC_CRYPTO_MD_CTX md)
    {
        CallbackPlan& plan = Plan();
        (void)plan.Fails(Call::MdDestroy);
        if (!plan.Known(plan.digests_, md, "md_ctx_destory")) return;
        plan.digests_.erase(md);
        Md(plan).pelnic_md_ctx_destory(md);
    }

    // ---- Verification: where no real one stands behind it, a handle is a single octet of its own ----

    static Verification* Find(PELNIC_CRYPTO_VRF_CTX handle, const char* callback)
    {
        CallbackPlan& plan = Plan();
        return plan.Known(plan.verifications_, handle, callback) ? &plan.verifications_.find(handle)->second : nullptr;
    }

    static void Release(PELNIC_CRYPTO_VRF_CTX handle, const Verification& verification)
    {
        if (verification.real == nullptr) {
            delete static_cast<char*>(handle);
        } else {
            Crypt(Plan()).pelnic_verify_ctx_destory(verification.real);
        }
    }

    static PELNIC_ERROR_CODE VerifyCreate(PELNIC_CRYPTO_VRF_CTX* out)
    {
        CallbackPlan& plan = Plan();
        if (plan.Fails(Call::VerifyCreate)) return PELNIC_ERR_FAILED;
        if (plan.stub_ || plan.remembers_) {
            *out = new char;
            plan.verifications_[*out];
            return 0;
        }
        const PELNIC_ERROR_CODE rc = Crypt(plan).pelnic_verify_ctx_create(out);
        if (rc == 0) plan.verifications_[*out].real = *out;
        return rc;
    }

    static PELNIC_ERROR_CODE VerifyInit(PELNIC_CRYPTO_VRF_CTX handle, const PELNIC_BIGINT* e, const PELNIC_BIGINT* n,
                                        PNV_UINT32 hashId)
    {
        CallbackPlan& plan = Plan();
        const bool fails = plan.Fails(Call::VerifyInit);
        Verification* const verification = Find(handle, "verify_init");
        if (fails || verification == nullptr) return PELNIC_ERR_FAILED;
        verification->request = {hashId, Magnitude(*e), Magnitude(*n), {}, {}};
        return verification->real == nullptr ? 0 : Crypt(plan).pelnic_verify_init(verification->real, e, n, hashId);
    }

    static PELNIC_ERROR_CODE VerifyUpdate(PELNIC_CRYPTO_VRF_CTX handle, const PNV_BYTE* data, PNV_UINT32 len)
    {
        CallbackPlan& plan = Plan();
        const bool fails = plan.Fails(Call::VerifyUpdate);
        Verification* const verification = Find(handle, "verify_update");
        if (fails || verification == nullptr) return PELNIC_ERR_FAILED;
        verification->request.data.insert(verification->request.data.end(), data, data + len);
        return verification->real == nullptr ? 0 : Crypt(plan).pelnic_verify_update(verification->real, data, len);
    }

    static PELNIC_ERROR_CODE VerifyFinal(PELNIC_CRYPTO_VRF_CTX handle, const PNV_BYTE* signature, PNV_UINT32 len,
                                         PNV_INT* result)
    {
        CallbackPlan& plan = Plan();
        const bool fails = plan.Fails(Call::VerifyFinal);
        const bool badVerdict = plan.Fails(Call::VerifyVerdict);
        Verification* const verification = Find(handle, "verify_final");
        if (fails || verification == nullptr) return PELNIC_ERR_FAILED;
        verification->request.signature = Bytes(signature, signature + len);
        plan.verifyRequests_.push_back(verification->request);
        if (badVerdict) {
            *result = 0;
            return 0;
        }
        if (plan.stub_) {
            const bool spared = plan.spared_.count(verification->request.signature) != 0;
            if (spared) *result = 1;
            if (spared) return 0;
            *result = plan.stub_->verdict;
            return plan.stub_->code;
        }
        if (verification->real == nullptr) return Recall(verification->request, result);
        return Crypt(plan).pelnic_verify_final(verification->real, signature, len, result);
    }

    static PELNIC_ERROR_CODE Recall(const VerifyRequest& request, PNV_INT* result)
    {
        static std::set<std::tuple<PNV_UINT32, Bytes, Bytes, Bytes, Bytes>> good;
        const auto key = std::tie(request.hashId, request.exponent, request.modulus, request.data, request.signature);
        *result = 1;
        if (good.count(key) != 0) return 0;
        const PELNIC_ERROR_CODE rc = Compute(request, result);
        if (rc == 0 && *result == 1) good.insert(key);
        return rc;
    }

    static PELNIC_ERROR_CODE Compute(const VerifyRequest& request, PNV_INT* result)
    {
        const PELNIC_CRYPTO_FUNCS& crypt = Crypt(Plan());
        const PELNIC_BIGINT e = Number(request.exponent);
        const PELNIC_BIGINT n = Number(request.modulus);
        PELNIC_CRYPTO_VRF_CTX real = nullptr;
        PELNIC_ERROR_CODE rc = crypt.pelnic_verify_ctx_create(&real);
        if (rc != 0) return rc;
        rc = crypt.pelnic_verify_init(real, &e, &n, request.hashId);
        if (rc == 0) rc = crypt.pelnic_verify_update(real, request.data.data(), Len(request.data));
        if (rc == 0) rc = crypt.pelnic_verify_final(real, request.signature.data(), Len(request.signature), result);
        crypt.pelnic_verify_ctx_destory(real);
        return rc;
    }

    static void VerifyDestroy(PELNIC_CRYPTO_VRF_CTX handle)
    {
        CallbackPlan& plan = Plan();
        (void)plan.Fails(Call::VerifyDestroy);
        Verification* const verification = Find(handle, "verify_ctx_destory");
        if (verification == nullptr) return;
        Release(handle, *verification);
        plan.verifications_.erase(handle);
    }
};

CallbackPlan::CallbackPlan()
{
    if (t_plan != nullptr) Misuse("two callback plans at a time");
    t_plan = this;
    pelnic_set_callback_funcs(&defaults_);
    table_ = defaults_;
    InstallHooks();
}

CallbackPlan::~CallbackPlan()
{
    for (const auto& [block, size] : blocks_) Hooks::Mem(*this).free(block);
    for (PNV_FILE_HANDLE file : files_) Hooks::File(*this).fclose(file);
    for (PELNIC_CRYPTO_MD_CTX md : digests_) Hooks::Md(*this).pelnic_md_ctx_destory(md);
    for (const auto& [handle, verification] : verifications_) Hooks::Release(handle, verification);
    t_plan = nullptr;
}

void CallbackPlan::InstallHooks()
{
    PELNIC_SYS_FUNCS& sys = table_.plt_funcs.sys_funcs;
    sys.mem_funcs = {Hooks::Malloc, Hooks::Memset, Hooks::Memmove, Hooks::Memcpy, Hooks::Free, Hooks::Memcmp};
    sys.str_funcs = {Hooks::Strncmp, Hooks::Strstr, Hooks::Strchr, Hooks::Strlen,
                     Hooks::Strcmp,  Hooks::Strcpy, Hooks::Strcat, Hooks::Vsnprintf};
    sys.file_funcs = {Hooks::Fopen, Hooks::Fread, Hooks::Fclose, Hooks::FileSize};
    table_.plt_funcs.log_funcs = {Hooks::Log};
    table_.md_funcs = {sizeof(PELNIC_MD_FUNCS), Hooks::MdCreate, Hooks::MdInit,
                       Hooks::MdUpdate,         Hooks::MdFinal,  Hooks::MdDestroy};
    table_.crypt_funcs = {sizeof(PELNIC_CRYPTO_FUNCS), Hooks::VerifyCreate, Hooks::VerifyInit,
                          Hooks::VerifyUpdate,         Hooks::VerifyFinal,  Hooks::VerifyDestroy};
}

void CallbackPlan::Silence()
{
    table_.plt_funcs.log_funcs.log_func = nullptr;
}

void CallbackPlan::InstallClock(PNV_THREAD_ID thread, PNV_TIME_T now)
{
    thread_ = thread;
    now_ = now;
    table_.plt_funcs.sys_funcs.plt_funcs.get_thread_id = Hooks::ThreadId;
    table_.plt_funcs.sys_funcs.plt_funcs.get_utc_time = Hooks::UtcTime;
}

std::size_t CallbackPlan::Count(Calls kinds) const
{
    std::size_t total = 0;
    for (const auto& [call, count] : counts_) total += kinds.Has(call) ? count : 0;
    return total;
}

void CallbackPlan::Fail(Calls kinds, std::size_t nth, FaultMode mode)
{
    fault_ = Fault{kinds, nth, mode, 0};
}

void CallbackPlan::StubVerification(PELNIC_ERROR_CODE code, PNV_INT verdict)
{
    stub_ = Stub{code, verdict};
}

std::vector<std::string> CallbackPlan::Problems() const
{
    std::vector<std::string> problems = misuses_;
    for (const auto& [block, size] : blocks_) {
        problems.push_back("a block of " + std::to_string(size) + " octets was not given back");
    }
    if (!files_.empty()) problems.push_back(std::to_string(files_.size()) + " files were not closed");
    if (!digests_.empty()) problems.push_back(std::to_string(digests_.size()) + " digests were not destroyed");
    if (!verifications_.empty()) {
        problems.push_back(std::to_string(verifications_.size()) + " verifications were not destroyed");
    }
    return problems;
}

bool CallbackPlan::Fails(Call call)
{
    ++counts_[call];
    return MeetsFault(call);
}

bool CallbackPlan::MeetsFault(Call call)
{
    if (!fault_ || !fault_->kinds.Has(call)) return false;
    ++fault_->seen;
    const bool met = fault_->mode == FaultMode::Once ? fault_->seen == fault_->nth : fault_->seen >= fault_->nth;
    if (met) ++faultsMet_;
    return met;
}

template <typename Handles> bool CallbackPlan::Known(const Handles& handles, void* handle, const char* callback)
{
    if (handles.find(handle) != handles.end()) return true;
    Complain(std::string(callback) + " of something not given out or already given back");
    return false;
}

} // namespace pnvtest
