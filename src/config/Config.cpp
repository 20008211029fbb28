#include "config/Config.h"

namespace parlavox {

Config defaultConfig() {
  const std::vector<std::string> all{"Main", "Tech", "Backstage", "Green Room"};
  const std::vector<std::string> mainTech{"Main", "Tech"};
  Config config;
  config.channels = all;
  config.roles = {
      {"Stage Manager", all, all},
      {"Lighting", mainTech, mainTech},
      {"Sound", mainTech, mainTech},
      {"Backstage Crew", {"Main", "Backstage"}, {"Main", "Backstage"}},
      {"Green Room Parent", {"Green Room"}, {"Main", "Green Room"}},
      {"Director (listen only)", {}, {"Main", "Tech", "Backstage"}},
  };
  return config;
}

}  // namespace parlavox
