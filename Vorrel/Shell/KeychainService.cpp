#include "Vorrel/Shell/KeychainService.h"

#include "CommandCore/Commands.h"

namespace korvane {

struct KeychainService::State { };

KeychainService::KeychainService(Executor, SecretStore *, std::string) : state(std::make_shared<State>()) { }

Task<void> KeychainService::set(std::string, std::string)
{
    throw AppError(AppError::Kind::permission, "The secret could not be saved to Keychain.");
    co_return;
}

Task<std::optional<std::string>> KeychainService::get(std::string)
{
    throw AppError(AppError::Kind::permission, "Keychain access was denied.");
    co_return std::nullopt;
}

Task<void> KeychainService::deleteAccount(std::string)
{
    throw AppError(AppError::Kind::permission, "The Keychain item could not be removed.");
    co_return;
}

} // namespace korvane
