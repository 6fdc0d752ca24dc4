#pragma once

class Properties;

/// Describes the registered commands and their arguments to clients.
class CommandDirectory {
public:
    /// The commands with their help, or the one that `params` names under "name". When there is none of that
    /// name: no command, and what may have been meant under "nearest". Any thread.
    /// @throw InputError when the name isn't a text
    static Properties describe(const Properties& params);
};
