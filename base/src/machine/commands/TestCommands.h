#pragma once

class Controller;

/// Registers the commands that check a server: they say in their output that they are for tests.
void registerTestCommands(Controller& controller);
