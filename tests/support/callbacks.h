// A callback table that watches the library: it counts every call, makes chosen calls fail, hands out dirty memory,
// tracks every block and handle until it comes back, and keeps the log. Behind it stand the default callbacks.
//
//     CallbackPlan plan;
//     plan.Fail(Call::Malloc, 3);            // the third allocation from here on finds no memory
//     ... use plan.Table() ...
//     plan.Problems()                        // must be empty: no leak, no double free, no foreign handle
//
// Callbacks carry no user pointer, so a thread can have one plan at a time. Nothing here needs GoogleTest; vrf.h has
// the test context and the fault sweep on top.
#ifndef PNVTEST_CALLBACKS_H
#define PNVTEST_CALLBACKS_H

#include "cmsverify/include/pelnic_cms_verify.h"
#include "der.h"

#include <map>
#include <optional>
#include <set>

namespace pnvtest {

// The callbacks, and how each fails when its turn comes.
enum class Call : unsigned {
    Malloc, // null and PELNIC_ERR_SYS_MEM_ALLOC
    Memset, // injectedFault, nothing written; so do the next two
    Memmove,
    Memcpy,
    Free,      // cannot fail; nor can the two destroying calls, the clock calls and the log
    Memcmp,    // -1: different
    Strncmp,   // -1
    Strstr,    // null: not found
    Strchr,    // null
    Strlen,    // 0
    Strcmp,    // -1
    Strcpy,    // injectedFault, nothing written
    Strcat,    // injectedFault, nothing written
    Vsnprintf, // -1
    Fopen,     // null
    Fread,     // half of what was asked for
    Fclose,    // injectedFault, though the file is closed
    FileSize,  // 0xFFFFFFFF
    ThreadId,
    UtcTime,
    Log,
    MdCreate, // PELNIC_ERR_FAILED, as all of cryptography
    MdInit,
    MdUpdate,
    MdFinal,
    MdDestroy,
    VerifyCreate,
    VerifyInit,
    VerifyUpdate,
    VerifyFinal,   // the check does not run: PELNIC_ERR_FAILED
    VerifyVerdict, // the same call, but the check runs and finds the signature bad: 0 and verdict 0; counted apart
    VerifyDestroy,
};

constexpr PELNIC_ERROR_CODE injectedFault = 0xBADC0DE5u;

// A set of callbacks: Call::Memcpy | Call::Memset, or a group below.
class Calls {
public:
    constexpr Calls(Call call) : bits_(1ull << static_cast<unsigned>(call)) {} // one call is a set
    constexpr bool Has(Call call) const { return (bits_ & Calls(call).bits_) != 0; }
    friend constexpr Calls operator|(Calls a, Calls b)
    {
        a.bits_ |= b.bits_;
        return a;
    }

private:
    unsigned long long bits_;
};
constexpr Calls operator|(Call a, Call b)
{
    return Calls(a) | Calls(b);
}

namespace calls {
constexpr Calls copies = Call::Memset | Call::Memmove | Call::Memcpy | Call::Strcpy | Call::Strcat;
constexpr Calls files = Call::Fopen | Call::Fread | Call::Fclose | Call::FileSize;
constexpr Calls digests = Call::MdCreate | Call::MdInit | Call::MdUpdate | Call::MdFinal;
constexpr Calls verification = Call::VerifyCreate | Call::VerifyInit | Call::VerifyUpdate | Call::VerifyFinal;
constexpr Calls crypto = digests | verification;
} // namespace calls

enum class FaultMode { Once, Onward }; // that call alone, or that call and all after it

struct LogRecord {
    PELNIC_LOG_TYPE level;
    std::string file;
    PNV_INT line;
    std::string function;
    PNV_THREAD_ID thread;
    PNV_TIME_T time;
    PELNIC_ERROR_CODE rc;
    std::optional<std::string> message; // nullopt when the callback was given null
};

// What one finished signature verification was asked.
struct VerifyRequest {
    PNV_UINT32 hashId = 0;
    Bytes exponent;
    Bytes modulus;
    Bytes data;
    Bytes signature;
};

class CallbackPlan {
public:
    CallbackPlan();
    ~CallbackPlan(); // releases what Problems() calls not given back
    CallbackPlan(const CallbackPlan&) = delete;
    CallbackPlan& operator=(const CallbackPlan&) = delete;

    // The table to give to a context. A test may change its copy, or this one before it is copied.
    PELNIC_CALLBACK_FUNCS& Table() { return table_; }
    // Leaves log_func out, so that failures do not allocate log messages.
    void Silence();
    // Installs get_thread_id and get_utc_time, which are null otherwise, with these answers.
    void InstallClock(PNV_THREAD_ID thread, PNV_TIME_T now);

    // Calls made so far, failed ones included.
    std::size_t Count(Calls kinds) const;

    // Makes call nth (1 is the next) of these kinds fail. One fault plan at a time: a second replaces the first.
    void Fail(Calls kinds, std::size_t nth, FaultMode mode = FaultMode::Once);
    std::size_t FaultsMet() const { return faultsMet_; }
    // Runs a step of the test whose calls neither fail nor count towards nth.
    template <typename Step> void WithoutFaults(Step step)
    {
        const std::optional<Fault> fault = std::exchange(fault_, std::nullopt);
        step();
        fault_ = fault;
    }

    // From here on verify_final answers this without any RSA, and the calls before it succeed. The rest is unchanged.
    void StubVerification(PELNIC_ERROR_CODE code, PNV_INT verdict);
    // These signatures stay good under the stub.
    void Spare(std::set<Bytes> signatures) { spared_ = std::move(signatures); }
    // From here on a signature that was good once in this process is good again without any RSA. For sweeps, which ask
    // the same a thousand times.
    void RememberGoodSignatures() { remembers_ = true; }
    // Every verify_final that ran, in order, under the stub or not.
    const std::vector<VerifyRequest>& VerifyRequests() const { return verifyRequests_; }

    const std::vector<LogRecord>& Logs() const { return logs_; }
    void ClearLogs() { logs_.clear(); }

    std::size_t LiveBlocks() const { return blocks_.size(); }
    std::size_t LiveBytes() const { return liveBytes_; }
    std::size_t PeakBytes() const { return peakBytes_; }
    std::size_t LargestRequest() const { return largestRequest_; } // a failed request counts too

    // Whatever is wrong by now, one line each: calls with blocks or handles that were not given out or already given
    // back, and blocks and handles not yet given back.
    std::vector<std::string> Problems() const;

private:
    struct Fault {
        Calls kinds;
        std::size_t nth;
        FaultMode mode;
        std::size_t seen;
    };
    struct Verification {
        PELNIC_CRYPTO_VRF_CTX real; // null under the stub, and while signatures are remembered
        VerifyRequest request;
    };
    struct Stub {
        PELNIC_ERROR_CODE code;
        PNV_INT verdict;
    };
    struct Hooks; // the callbacks themselves

    void InstallHooks();
    // Counts a call; true when it has to fail.
    bool Fails(Call call);
    bool MeetsFault(Call call);
    void Complain(const std::string& problem) { misuses_.push_back(problem); }
    // Whether the handle is one of ours; complains if not.
    template <typename Handles> bool Known(const Handles& handles, void* handle, const char* callback);

    PELNIC_CALLBACK_FUNCS defaults_{};
    PELNIC_CALLBACK_FUNCS table_{};
    std::map<Call, std::size_t> counts_;
    std::optional<Fault> fault_;
    std::size_t faultsMet_ = 0;
    std::optional<Stub> stub_;
    std::set<Bytes> spared_;
    bool remembers_ = false;
    PNV_THREAD_ID thread_ = nullptr;
    PNV_TIME_T now_ = 0;

    std::map<void*, std::size_t> blocks_; // with their sizes
    std::size_t liveBytes_ = 0;
    std::size_t peakBytes_ = 0;
    std::size_t largestRequest_ = 0;
    std::set<void*> files_;
    std::set<void*> digests_;
    std::map<void*, Verification> verifications_;
    std::vector<VerifyRequest> verifyRequests_;
    std::vector<LogRecord> logs_;
    std::vector<std::string> misuses_;
};

} // namespace pnvtest

#endif
