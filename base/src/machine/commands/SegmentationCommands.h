#pragma once

class Controller;

/// Registers the commands that raise a segmentation fault: on the master, on all ranks, or on one worker.
void registerSegmentationCommands(Controller& controller);
