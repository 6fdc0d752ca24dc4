#include "machine/start/StartTimeline.h"

#include "platform/Time.h"

std::vector<StartTimeline::Step> StartTimeline::_steps;
double StartTimeline::_zero = 0.0;
bool StartTimeline::_isOver = false;

void StartTimeline::enter(const char* name) {
    if (_isOver)
        return;
    const double now = Platform::time().getTime();
    if (_steps.empty())
        _zero = now;
    close(now);
    _steps.push_back({name, now - _zero});
}

void StartTimeline::end() {
    if (!_isOver)
        close(Platform::time().getTime());
    _isOver = true;
}

void StartTimeline::close(double now) {
    if (!_steps.empty())
        _steps.back().seconds = now - _zero - _steps.back().begin;
}
