// The targets of the library and of either checker.
#include "fuzz.h"

namespace pnvfuzz {

const std::vector<Target>& Targets()
{
    static const std::vector<Target> targets{
        {"certificate", FuzzCertificate, Holding::CrlsInUse},
        {"crl", FuzzCrl, Holding::Root, true},
        {"extension", FuzzExtension},
        {"cms", FuzzCms, Holding::Crls},
        {"timestamp", FuzzTimestamp, Holding::Crls},
        {"pem", FuzzPem, Holding::Crls},
        {"base64", FuzzBase64},
        {"crl_bundle", FuzzCrlBundle, Holding::Root, true, false, CrlBundlePrefix},
        {"callbacks", FuzzCallbacks, Holding::Root, false, false, CallbacksPrefix},
        {"package", FuzzPackage, Holding::Root, false, true},
        {"strict", FuzzPackage, Holding::Root, false, true}, // in the programs that have the strict checker
    };
    return targets;
}

} // namespace pnvfuzz
