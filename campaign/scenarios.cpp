#include <iterator>

#include "scenario.h"

namespace orbix::campaign {

const std::vector<Scenario>& scenarios() {
    static const std::vector<Scenario> all = [] {
        std::vector<Scenario> table;
        for (auto* const make :
             {ag33xx_scenarios, teseo_scenarios, hd8xx0_scenarios, board_scenarios}) {
            auto more = make();
            table.insert(table.end(), std::make_move_iterator(more.begin()),
                         std::make_move_iterator(more.end()));
        }
        return table;
    }();
    return all;
}

}  // namespace orbix::campaign
