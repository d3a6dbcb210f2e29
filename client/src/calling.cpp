#include "calling.h"

#include <algorithm>

#include <CLI/CLI.hpp>

#include "failure.h"

namespace qpx {

namespace {

// Fills a field of fixed width, padded with blanks; a text that is empty leaves it without any.
template <std::size_t width>
void fill(char (&field)[width], const std::string& text)
{
    if (text.empty()) return;
    std::fill(field, field + width, ' ');
    std::copy_n(text.begin(), std::min(width, text.size()), field);
}

std::string abendCodeOf(const QPX_ECI_PARMS& record)
{
    const std::string code(record.eci_abend_code, sizeof record.eci_abend_code);
    return code.substr(0, code.find('\0'));
}

} // namespace

void declarePasswordFd(CLI::App& command, std::optional<std::string>& passwordFd)
{
    command
        .add_option("--password-fd", passwordFd,
                    "Read the password from this descriptor, a line; it is asked for at the "
                    "terminal otherwise, and never taken from the command line")
        ->option_text("N");
}

int descriptorFrom(const std::string& passwordFd)
{
    return numberFrom(passwordFd, 0, 1048575, "a descriptor");
}

void declareCalling(CLI::App& command, CallingOptions& options)
{
    command
        .add_option("--transaction", options.transaction,
                    "The transaction under which the program runs, at most 4 characters")
        ->option_text("NAME");
    command
        .add_option("--call-timeout", options.callTimeout,
                    "Seconds after which the Gateway gives a call up, 0 is its default (0)")
        ->option_text("SECONDS");
    declarePasswordFd(command, options.passwordFd);
}

Caller::Caller(const Settings& settings, const CallingOptions& options)
    : user_(settings.user), server_(settings.server), transaction_(options.transaction),
      callTimeout_(static_cast<short>(numberFrom(options.callTimeout, 0, 32767, "--call-timeout")))
{
    if (transaction_.size() > 4)
        throw Failure(kUsage, "--transaction: longer than 4 characters: " + transaction_);
    if (options.passwordFd && user_.empty())
        throw Failure(kUsage, "--password-fd is given without a user");
    if (user_.empty()) return;
    if (options.passwordFd)
        password_.readFrom(descriptorFrom(*options.passwordFd), "password");
    else
        password_.askFor("password of " + user_);
}

QPX_ECI_PARMS Caller::record(const std::string& program) const
{
    QPX_ECI_PARMS parms = {};
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = ECI_SYNC;
    fill(parms.eci_program_name, program);
    fill(parms.eci_system_name, server_);
    fill(parms.eci_transid, transaction_);
    parms.eci_timeout = callTimeout_;
    if (!user_.empty()) {
        parms.eci_userid_ptr = const_cast<char*>(user_.c_str()); // the library does not write there
        parms.eci_password_ptr = password_.text();
    }
    return parms;
}

void checkProgram(const std::string& program)
{
    if (program.empty()) throw Failure(kUsage, "the name of the program is empty");
    if (program.size() > 8) throw Failure(kUsage, "a program has at most 8 characters: " + program);
}

void execute(QPX_ConnToken_t gateway, QPX_ECI_PARMS& record, const std::string& step)
{
    const int rc = record.channel != nullptr ? QPX_ECI_Execute_Channel(gateway, &record)
                                             : QPX_ECI_Execute(gateway, &record);
    if (rc == ECI_NO_ERROR) return;
    throw CallFailure(Phase::Call, step, rc,
                      rc == ECI_ERR_TRANSACTION_ABEND ? abendCodeOf(record) : "");
}

} // namespace qpx
