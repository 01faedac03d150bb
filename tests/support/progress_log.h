// What a session's progress hook was told, and whether it makes a sane
// count: the long-running calls' tests share it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zelmgmt.h"

namespace zeltest {

class ProgressLog {
public:
    // Reports of calls on s go to this log from now on.
    ZelRC watch(ZelSession *s) { return Zel_setProgressCallback(s, &ProgressLog::record, this); }
    size_t size() const { return reports_.size(); }

    // "" when the reports start at 0 of an unknown total, go up by one at a
    // time, never pass a known total and end at done == total == entries;
    // else the first report that does not.
    std::string problem(int64_t entries) const {
        if (reports_.empty()) return "no report";
        if (reports_.front() != Report{0, -1}) return "first " + text(0);
        for (size_t i = 1; i < reports_.size(); ++i) {
            const Report &before = reports_[i - 1], &now = reports_[i];
            bool steps = now.first == before.first || now.first == before.first + 1;
            bool bounded = now.second < 0 || now.first <= now.second;
            bool total_kept = before.second < 0 || now.second >= before.second;
            if (!steps || !bounded || !total_kept) return text(i);
        }
        if (reports_.back() != Report{entries, entries}) return "last " + text(reports_.size() - 1);
        return "";
    }

private:
    using Report = std::pair<int64_t, int64_t>;

    static void record(void *self, int64_t done, int64_t total) {
        static_cast<ProgressLog *>(self)->reports_.emplace_back(done, total);
    }
    std::string text(size_t i) const {
        return "report " + std::to_string(i) + ": " + std::to_string(reports_[i].first) + " of " +
               std::to_string(reports_[i].second);
    }

    std::vector<Report> reports_;
};

}  // namespace zeltest
