// Parameter records of ECI calls, with the memory that they point to.
//
//     EciParms parms = syncCall("ECHO", text("hello"));
//     EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
//     EXPECT_EQ(text("hello"), parms.commarea());
#ifndef SUPPORT_ECI_PARMS_H
#define SUPPORT_ECI_PARMS_H

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/bytes.h"

namespace support {

// Moves, but is not copied: the record points into the vectors.
struct EciParms {
    QPX_ECI_PARMS record;
    std::vector<char> area; // the COMMAREA
    std::vector<char> user; // what the pointers of version 5 and 6 point to
    std::vector<char> password;

    EciParms() { std::memset(&record, 0, sizeof record); }
    EciParms(EciParms&&) noexcept = default;
    EciParms& operator=(EciParms&&) noexcept = default;
    EciParms(const EciParms&) = delete;
    EciParms& operator=(const EciParms&) = delete;

    Bytes commarea() const { return Bytes(area.begin(), area.end()); }

    // A COMMAREA with these contents; none when it is empty.
    EciParms& withCommarea(const Bytes& contents)
    {
        area.assign(contents.begin(), contents.end());
        record.eci_commarea = area.empty() ? nullptr : area.data();
        record.eci_commarea_length = static_cast<short>(area.size());
        return *this;
    }

    EciParms& withVersion(int version)
    {
        record.eci_version = static_cast<short>(version);
        return *this;
    }

    EciParms& withExtendMode(int mode, int luwToken = 0)
    {
        record.eci_extend_mode = static_cast<short>(mode);
        record.eci_luw_token = luwToken;
        return *this;
    }

    // User id and password by pointer, as from version 5.
    EciParms& withUser(const std::string& userId, const std::string& secret)
    {
        user.assign(userId.begin(), userId.end());
        user.push_back('\0');
        password.assign(secret.begin(), secret.end());
        password.push_back('\0');
        record.eci_userid_ptr = user.data();
        record.eci_password_ptr = password.data();
        return *this;
    }

    // User id and password in the fixed fields, as in versions 3 and 4.
    EciParms& withFixedUser(const std::string& userId, const std::string& secret)
    {
        fill(record.eci_userid, userId);
        fill(record.eci_password, secret);
        return *this;
    }

    EciParms& withSystem(const std::string& system)
    {
        fill(record.eci_system_name, system);
        return *this;
    }

    EciParms& withTransid(const std::string& transid)
    {
        fill(record.eci_transid, transid);
        return *this;
    }

    EciParms& withTpn(const std::string& tpn)
    {
        fill(record.eci_tpn, tpn);
        return *this;
    }

    // A text in a field of fixed width, filled with blanks.
    template <std::size_t width>
    static void fill(char (&field)[width], const std::string& value)
    {
        if (value.size() > width) throw std::invalid_argument("longer than its field: " + value);
        std::memset(field, ' ', width);
        std::memcpy(field, value.data(), value.size());
    }
};

inline EciParms eciCall(int callType, const std::string& program, const Bytes& commarea)
{
    EciParms parms;
    parms.record.eci_call_type = static_cast<short>(callType);
    parms.record.eci_version = ECI_VERSION_6;
    if (!program.empty()) EciParms::fill(parms.record.eci_program_name, program);
    parms.withCommarea(commarea);
    return parms;
}

inline EciParms syncCall(const std::string& program, const Bytes& commarea = Bytes())
{
    return eciCall(ECI_SYNC, program, commarea);
}

inline EciParms asyncCall(const std::string& program, const Bytes& commarea = Bytes())
{
    return eciCall(ECI_ASYNC, program, commarea);
}

// The collecting calls, with a COMMAREA of so many zero bytes.
inline EciParms getReply(std::size_t room)
{
    return eciCall(ECI_GET_REPLY, "", filled(room));
}

inline EciParms getReplyWait(std::size_t room)
{
    return eciCall(ECI_GET_REPLY_WAIT, "", filled(room));
}

inline EciParms getSpecificReply(int qualifier, std::size_t room)
{
    EciParms parms = eciCall(ECI_GET_SPECIFIC_REPLY, "", filled(room));
    parms.record.eci_message_qualifier = qualifier;
    return parms;
}

inline EciParms getSpecificReplyWait(int qualifier, std::size_t room)
{
    EciParms parms = eciCall(ECI_GET_SPECIFIC_REPLY_WAIT, "", filled(room));
    parms.record.eci_message_qualifier = qualifier;
    return parms;
}

} // namespace support

#endif
