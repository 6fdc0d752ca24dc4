#pragma once

#include "kernel/Observer.h"
#include "machine/MachineExport.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// Counts and times the operations of all communicators, by operation and by size of the message.
///
/// It is off at first, and costs nothing then. While it is on, each operation of a Communicator opens the
/// event of its name and closes it. A solver can open events for messages that it sends by other means:
///
///     if (auto* event = MpiStatisticsManager::openGlobalEvent("Solver::exchange", bytes)) {
///         ...
///         event->close();
///     }
///
/// Main thread.
class ORVEX_MACHINE_EXPORT MpiStatisticsManager {
public:
    /// Messages of similar size are counted together.
    static constexpr std::size_t NUMBER_CLASSES = 7;
    /// The first byte count of each class; the last class has no end.
    static constexpr std::array<unsigned, NUMBER_CLASSES> LOWER_BOUNDS{0, 65, 257, 1025, 4097, 16385, 65537};
    using Counts = std::array<std::uint64_t, NUMBER_CLASSES>;
    using Times = std::array<double, NUMBER_CLASSES>;

    /// The work of one operation on this rank. An event counts when it is opened, so one that fails counts,
    /// too.
    class ORVEX_MACHINE_EXPORT MpiEvent {
    public:
        virtual ~MpiEvent();
        MpiEvent(const MpiEvent&) = delete;
        MpiEvent& operator=(const MpiEvent&) = delete;

        bool isOpen() const { return _isOpen; }
        /// Events opened, by size class.
        const Counts& getCounts() const { return _counts; }
        /// [s] between opening and closing, by size class.
        Times getTimes() const;

    protected:
        MpiEvent();
        /// Closes the event. Does nothing when it isn't open.
        void end();

    private:
        friend class MpiStatisticsManager;
        void begin(unsigned bytes);

        Counts _counts{};
        Counts _ticks{}; ///< between opening and closing, by size class
        std::size_t _currentClass = 0;
        std::uint64_t _openedAt = 0; ///< [ticks]
        bool _isOpen = false;
    };

    /// An operation of all ranks of a communicator.
    class ORVEX_MACHINE_EXPORT GlobalMpiEvent : public MpiEvent {
    public:
        /// Does nothing when the event isn't open any more.
        void close() { end(); }
    };

    /// An operation between two ranks.
    class ORVEX_MACHINE_EXPORT Pt2PtMpiEvent : public MpiEvent {
    public:
        Pt2PtMpiEvent();
        /// Does nothing when the event isn't open any more.
        /// @param partner  the rank at the other end, 0 when there is none
        /// @throw InternalError when the job has no such rank; the event stays open
        void close(unsigned partner);
        /// How many events went to or came from each rank of the job.
        const std::vector<std::uint64_t>& getPartnerCounts() const { return _partnerCounts; }

    private:
        std::vector<std::uint64_t> _partnerCounts;
    };

    /// Made when it is first asked for.
    static MpiStatisticsManager& getSingleton();
    /// Forgets all events. Whether events are counted stays as it is.
    static void destroySingleton();
    virtual ~MpiStatisticsManager();
    MpiStatisticsManager(const MpiStatisticsManager&) = delete;
    MpiStatisticsManager& operator=(const MpiStatisticsManager&) = delete;

    static bool isEnabled();
    /// Local, but report() needs the same state on all ranks.
    /// @param verbose  say so on the standard output
    static void enable(bool verbose);
    /// The same. An event that is open can still be closed.
    static void disable(bool verbose);

    /// Opens the event of this name, which is made on first use.
    /// @param name   a static text
    /// @param bytes  of this rank's buffer
    /// @return null when nothing is counted
    static GlobalMpiEvent* openGlobalEvent(const char* name, unsigned bytes);
    static Pt2PtMpiEvent* openPt2PtEvent(const char* name, unsigned bytes);

    /// Takes the times of events from another clock, for tests.
    /// @param clock  [ns]; null for the host's own
    static void setClock(std::uint64_t (*clock)()) { _clock = clock; }

    using GlobalEvents = std::map<std::string, std::unique_ptr<GlobalMpiEvent>>;
    using Pt2PtEvents = std::map<std::string, std::unique_ptr<Pt2PtMpiEvent>>;
    const GlobalEvents& getGlobalEvents() const { return _global.events; }
    const Pt2PtEvents& getPt2PtEvents() const { return _pt2pt.events; }

    /// Writes the events of all ranks to the file `<baseName>-<process identifier of rank 0>.log`, and says
    /// so on the standard output. Counts go on from where they are. Does nothing while nothing is counted,
    /// and in a serial process. Collective over all processes, which have the same state.
    /// @return false, on all ranks, when the file can't be written; then the standard output tells it, too
    bool report(const std::string& baseName);
    /// The base name of the reports that commands and the machine ask for.
    static constexpr const char* BASE_NAME = "orvexsim+-mpi";
    /// The last report of a job; forgets all events. Collective, as report().
    static void reportAtEnd();

private:
    MpiStatisticsManager();

    /// Closes the open events: the signal may have broken out of an operation.
    class SignalRaisedObserver : public Observer {
    public:
        explicit SignalRaisedObserver(MpiStatisticsManager& manager) : _manager(&manager) {}
        void update(Properties& properties) override;

    private:
        MpiStatisticsManager* _manager;
    };

    /// The events of one kind. A static text is found again by its address, without a look at its letters.
    template <class Event>
    struct Table {
        Event& find(const char* name);

        struct Slot {
            const char* name = nullptr;
            Event* event = nullptr;
        };
        std::map<std::string, std::unique_ptr<Event>> events;
        std::array<Slot, 256> recent;
    };

    static std::uint64_t readClock();
    static double toSeconds(std::uint64_t ticks);

    static MpiStatisticsManager* _singleton;
    static std::uint64_t (*_clock)();

    Table<GlobalMpiEvent> _global;
    Table<Pt2PtMpiEvent> _pt2pt;
    SignalRaisedObserver _signalObserver;
};
