#include "kernel/Subject.h"

#include "kernel/Observer.h"
#include "kernel/Properties.h"

#include <algorithm>

Subject::~Subject() = default;

void Subject::notify() {
    Properties properties;
    notify(properties);
}

void Subject::notify(Properties& properties) {
    const std::vector<Observer*> snapshot = _observers;
    for (Observer* observer : snapshot)
        if (isAttached(*observer))
            observer->update(properties);
}

void Subject::attach(Observer& observer) {
    if (!isAttached(observer))
        _observers.push_back(&observer);
}

void Subject::detach(Observer& observer) {
    std::erase(_observers, &observer);
}

bool Subject::isAttached(const Observer& observer) const {
    return std::find(_observers.begin(), _observers.end(), &observer) != _observers.end();
}
