#pragma once

#include "machine/MachineExport.h"

#include <string>

class Properties;

/// The rules that a file name entered by a user has to keep, so that the files of a job can move between
/// Windows and Linux: the stricter ones of both.
namespace LegalFileHelper {

/// All that is against `name`, a paragraph for each objection; empty for a legal name. Local, any thread.
ORVEX_MACHINE_EXPORT std::string checkFileNameIsLegal(const std::wstring& name);

/// The name under `key`, empty without the key. All ranks hold the same `properties` and come to the same
/// result: a release version sends nothing for it, a development version with its checks on proves it,
/// collective over the global communicator then. Main thread.
/// @throw InputError with all objections for an illegal name
ORVEX_MACHINE_EXPORT std::wstring getLegalFileNameFromProperties(const Properties& properties,
                                                                 const std::string& key);
/// The same in UTF-8.
ORVEX_MACHINE_EXPORT std::string getLegalFileNameFromProperties_Std(const Properties& properties,
                                                                    const std::string& key);

} // namespace LegalFileHelper
