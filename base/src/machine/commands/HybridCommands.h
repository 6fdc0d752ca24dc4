#pragma once

class Controller;

/// "HybridPi" comes before other commands of its kind, "TestHybridIdling" behind them: two calls.
void registerHybridPi(Controller& controller);
void registerHybridIdlingTest(Controller& controller);
