#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The mathematical libraries in this process that have threads of their own: MKL, OpenBLAS, BLIS, FlexiBLAS;
/// and OpenMP runtimes beside the one that this library is built with. They are looked up in the process, for
/// a module may bring them, and asked by their own calls. Main thread.
class MathLibraries {
public:
    static MathLibraries& getSingleton();

    /// Their names and thread counts now, for people.
    struct Count {
        std::string library;
        long threads;
    };
    std::vector<Count> getCounts();
    /// MKL's thread count; without MKL the last one that was set here.
    int getMaxThreads();
    /// Sets the counts of all.
    void setThreads(int number);

    /// All counts at one moment. A library that came later is set to one thread.
    class Saved {
    public:
        Saved();
        void restore() const;

    private:
        struct Entry {
            std::string library;
            long threads;
        };
        std::vector<Entry> _counts;
        int _own;
    };

private:
    /// A library, by its calls. BLIS gives -1 for a count that nobody has set, and takes it back.
    struct Entry {
        std::string library;
        bool isMkl;
        std::function<long()> get;
        std::function<void(long)> set;
        std::shared_ptr<const void> keeper; ///< keeps the library loaded
    };
    struct Known;

    void refresh();
    void add(const Known& known, const std::string& path,
             const std::function<void*(const std::string&)>& find, const std::shared_ptr<const void>& keeper);

    unsigned long long _changes = 0; ///< of the process's libraries, when they were looked up
    std::vector<Entry> _libraries;
    int _own = 1; ///< the count without MKL
};
