#include <Korvo/korvo_types.h>

namespace Korvo {

KoBaseException::KoBaseException(const std::string& message, const std::string& className)
    : Velto::Exception(message, true), name_(className) {}
KoBaseException::~KoBaseException() = default;
const char* KoBaseException::name() const { return name_.c_str(); }

KoInvalidArgument::KoInvalidArgument(const std::string& message)
    : KoBaseException(message, "Korvo::KoInvalidArgument") {}
KoInvalidTypeName::KoInvalidTypeName(const std::string& message)
    : KoBaseException(message, "Korvo::InValidTypeName") {}
KoOutOfRange::KoOutOfRange(const std::string& message)
    : KoBaseException(message, "Korvo::OutOfRange") {}
KoNullRow::KoNullRow() : KoBaseException("null row", "Korvo::KoNullRow") {}
KoSchedulableDisabled::KoSchedulableDisabled(const std::string& message)
    : KoBaseException(message, "Korvo::KoSchedulableDisabled") {}

}  // namespace Korvo
