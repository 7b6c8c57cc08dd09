#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Passwords of console users, and what is kept of them.

/// The shortest password that a user may be given.
constexpr size_t kMinPasswordCharacters = 8;

/// Throws std::runtime_error that says what is wrong with a password: it has
/// `kMinPasswordCharacters` to 1024 bytes of UTF-8 without control characters.
void CheckPasswordText(std::string_view password);

/// "scrypt$N$r$p$salt$key" (RFC 7914), salt and key in hexadecimal. Throws std::runtime_error.
std::string HashPassword(std::string_view password);

bool IsPasswordHash(std::string_view text);

/// Whether the hash is of this password. As dear for no hash, or none that can be read, as for any,
/// so that the time does not tell which.
bool IsPasswordOf(std::string_view password, const std::optional<std::string>& hash);

/// As dear for texts that differ at their beginnings as for others.
bool EqualInConstantTime(std::string_view a, std::string_view b);

/// Throws std::runtime_error where the system has none.
std::string RandomBytes(size_t count);
