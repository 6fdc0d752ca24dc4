// A library that has the thread counts of a mathematical library and nothing else. The names of its calls,
// and the type of a count, come with the build.

namespace {

ORVEX_COUNT threads = ORVEX_FIRST_COUNT;

} // namespace

extern "C" {
[[gnu::visibility("default")]] ORVEX_COUNT ORVEX_GET();
[[gnu::visibility("default")]] void ORVEX_SET(ORVEX_COUNT count);

ORVEX_COUNT ORVEX_GET() {
    return threads;
}

void ORVEX_SET(ORVEX_COUNT count) {
    threads = count;
}
}
