#pragma once

// Catches the stores to the trapped page of every register window of the process.

#include <string>

namespace softcard {

class RegisterWindow;

// The first window of the process installs the fault handlers; the last one that goes puts the
// earlier ones back. False with a reason in `error` when that fails or too many windows exist.
bool trap_stores(RegisterWindow& window, std::string& error);
void untrap_stores(RegisterWindow& window);

} // namespace softcard
