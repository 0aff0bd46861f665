#include "tools/mivra/Progress.h"

#include "tools/mivra/ProgressText.h"

namespace Mivra::Tool {
namespace {

constexpr double kRedrawSeconds = 0.1;

/// True at most once in every `interval` seconds, and never before the first is over.
class Pace {
public:
    explicit Pace(double seconds) : interval(seconds) {}

    bool IsDue(double elapsed) {
        if (!(interval > 0) || elapsed < last + interval) {
            return false;
        }
        last = elapsed;
        return true;
    }

private:
    double interval;
    double last = 0;
};

class LiveReporter : public IProgressReporter {
public:
    explicit LiveReporter(Console& target) : console(target) {}

    void Update(const Progress& progress) override {
        if (pace.IsDue(progress.elapsed)) {
            console.SetLive(liveLine(progress, style()));
        }
    }

    void Tell(const Event& event) override { console.Line(event.text); }

    void Finish(const Summary& summary) override {
        console.EndLive();
        for (const std::string& line : summaryText(summary, style())) {
            console.Line(line);
        }
    }

private:
    LiveStyle style() const { return {console.Width(), console.HasColor(), console.HasUnicode()}; }

    Console& console;
    Pace pace{kRedrawSeconds};
};

class KeyValueReporter : public IProgressReporter {
public:
    KeyValueReporter(Console& target, double seconds) : console(target), pace(seconds) {}

    void Update(const Progress& progress) override {
        if (pace.IsDue(progress.elapsed)) {
            console.Line(keyValueLine(progress));
        }
    }

    void Tell(const Event& event) override { console.Line(keyValueLine(event)); }

    void Finish(const Summary& summary) override {
        for (const std::string& line : keyValueSummary(summary)) {
            console.Line(line);
        }
    }

private:
    Console& console;
    Pace pace;
};

class JsonReporter : public IProgressReporter {
public:
    JsonReporter(Console& target, double seconds) : console(target), pace(seconds) {}

    void Update(const Progress& progress) override {
        if (pace.IsDue(progress.elapsed)) {
            console.Line(jsonLine(progress));
        }
    }

    void Tell(const Event& event) override { console.Line(jsonLine(event)); }
    void Finish(const Summary& summary) override { console.Line(jsonSummary(summary)); }

private:
    Console& console;
    Pace pace;
};

}  // namespace

void ClientReport::Update(const NetworkBoard& board, const Progress& progress, IProgressReporter& reporter) {
    if (!(interval > 0) || progress.elapsed < last + interval) {
        return;
    }
    last = progress.elapsed;
    for (ClientTable::Line& client : board.Clients()) {
        client.stat.Speed() = progress.elapsed > 0 ? progress.position / progress.elapsed : 0;
        const std::string figures = client.stat.ToString();
        reporter.Tell(
            {"client", {{"address", client.address}, {"figures", figures}}, client.address + ": " + figures});
    }
}

std::unique_ptr<IProgressReporter> makeProgressReporter(Console& console, bool json, double statsSeconds) {
    if (json) {
        return std::make_unique<JsonReporter>(console, statsSeconds);
    }
    if (console.IsTerminal()) {
        return std::make_unique<LiveReporter>(console);
    }
    return std::make_unique<KeyValueReporter>(console, statsSeconds);
}

}  // namespace Mivra::Tool
