// The clock, the arguments and the output of the side-by-side benchmarks.
#ifndef XEL_BENCH_PEERS_MEASURE_H
#define XEL_BENCH_PEERS_MEASURE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

std::uint64_t NowNs();
// Processor time of all threads of this process.
std::uint64_t ProcessCpuNs();

// The value below which the given share of the samples lies; 0 without samples. Sorts them.
double Percentile(std::vector<double>& samples, double share);

// Throws std::runtime_error with the name of the call and errno's text when result is negative.
int Checked(int result, const char* call);

// The first two cores that this process may use, the same one twice when there is only one.
struct TwoCores {
    int first = 0;
    int second = 0;
};
TwoCores FindTwoCores();
void PinThisThread(int core);

// Arguments of the form name=number.
class Arguments
{
public:
    Arguments(int argc, char** argv);
    double Real(std::string_view name, double otherwise) const;
    int Whole(std::string_view name, int otherwise) const;

private:
    std::vector<std::string> words_;
};

// One line of JSON.
class Line
{
public:
    void Put(std::string_view name, double value);
    void Put(std::string_view name, std::string_view value); // nothing in it needs an escape
    void Print() const;

private:
    std::string text_;
};

#endif // XEL_BENCH_PEERS_MEASURE_H
