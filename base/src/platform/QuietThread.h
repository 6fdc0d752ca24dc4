#pragma once

#include <functional>
#include <string>
#include <thread>

/// Starts a thread that no signal from outside ever interrupts: those go to the threads that expect them.
/// Private to the platform layer. @throw std::system_error when the system has no thread left
std::thread startQuietThread(const std::string& name, std::function<void()> body);
