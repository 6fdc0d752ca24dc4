#pragma once

/// The entry of a module that DynamicLoader loads: it registers its commands and the like here.
///
///     ORVEX_MODULE_ENTRY() { Controller::getSingleton().registerCommand(new MyCommand); }
///
/// Called once, on the thread that loads the module. An exception fails the load, and its text is the reason.
/// A module without an entry is loaded all the same: its load-time initialisers are then all it does.
#define ORVEX_MODULE_ENTRY() extern "C" __attribute__((visibility("default"))) void orvexModuleEntry()
