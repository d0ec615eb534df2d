// A user's error and its remedy. Any other exception is a fault of this program or its machine.
#ifndef PKGTOOL_ERROR_H
#define PKGTOOL_ERROR_H

#include <stdexcept>
#include <string>

namespace pkgtool {

class UserError : public std::runtime_error {
public:
    explicit UserError(const std::string& message, std::string hint = {})
        : std::runtime_error(message), hint_(std::move(hint))
    {
    }
    const std::string& hint() const { return hint_; }

private:
    std::string hint_;
};

// An input that the checker would refuse, whatever the options.
class Refusal : public UserError {
public:
    using UserError::UserError;
};

} // namespace pkgtool

#endif
