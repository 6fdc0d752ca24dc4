#pragma once

class Controller;

void registerSystemMonitorCommands(Controller& controller);
