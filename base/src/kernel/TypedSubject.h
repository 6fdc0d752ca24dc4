#pragma once

#include <algorithm>
#include <vector>

/// Is told by a TypedSubject of the same arguments.
template <class... Args>
class TypedObserver {
public:
    virtual ~TypedObserver() = default;
    virtual void update(Args&... args) = 0;
};

/// The typed form of Subject, with the same rules: attached order, snapshot, no lock.
template <class... Args>
class TypedSubject {
public:
    using ObserverType = TypedObserver<Args...>;

    void attach(ObserverType& observer) {
        if (!isAttached(observer))
            _observers.push_back(&observer);
    }
    void detach(ObserverType& observer) { std::erase(_observers, &observer); }
    bool isAttached(const ObserverType& observer) const {
        return std::find(_observers.begin(), _observers.end(), &observer) != _observers.end();
    }

    void notify(Args&... args) {
        const std::vector<ObserverType*> snapshot = _observers;
        for (ObserverType* observer : snapshot)
            if (isAttached(*observer))
                observer->update(args...);
    }

private:
    std::vector<ObserverType*> _observers;
};
