#pragma once

class Controller;

void registerProfileCommands(Controller& controller);
