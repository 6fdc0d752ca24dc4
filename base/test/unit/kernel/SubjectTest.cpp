#include "kernel/Subject.h"
#include "kernel/Observer.h"
#include "kernel/Properties.h"
#include "kernel/TypedSubject.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

/// Does what it was given to do.
template <class Base, class Argument>
struct Noting : Base {
    explicit Noting(std::function<void()> work) : act(std::move(work)) {}
    void update(Argument&) override { act(); }
    std::function<void()> act;
};

template <class SubjectType, class ObserverBase, class Argument>
void checkRules() {
    std::string log;
    SubjectType subject;
    Argument argument{};
    using Note = Noting<ObserverBase, Argument>;
    Note late([&] { log += 'd'; });
    Note last([&] { log += 'c'; });
    Note middle([&] {
        log += 'b';
        subject.detach(last);
        subject.attach(late);
    });
    Note first([&] { log += 'a'; });
    subject.attach(first);
    subject.attach(middle);
    subject.attach(last);
    subject.attach(first);
    subject.notify(argument);
    EXPECT_EQ(log, "ab"); // c was detached in the pass, d comes with the next one
    EXPECT_FALSE(subject.isAttached(last));
    subject.notify(argument);
    EXPECT_EQ(log, "ababd");
    subject.detach(last);
    subject.detach(first);
    subject.notify(argument);
    EXPECT_EQ(log, "ababdbd");
}

} // namespace

TEST(Subject, TellsInOrderAndWorksOnASnapshot) {
    checkRules<Subject, Observer, Properties>();
    checkRules<TypedSubject<int>, TypedObserver<int>, int>();
}
