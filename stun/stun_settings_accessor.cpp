#include "stun/stun_settings_accessor.h"

#include "nat/config_reader.h"

StunSettingsAccessor* StunSettingsAccessor::s_instance = nullptr;
int StunSettingsAccessor::s_useCount = 0;

StunSettingsAccessor* StunSettingsAccessor::GetInstance(bool reload) {
  if (s_instance == nullptr) {
    s_instance = new StunSettingsAccessor;
  }
  if (reload) {
    s_instance->Load(2);
  }
  ++s_useCount;
  return s_instance;
}

void StunSettingsAccessor::ReleaseInstance() {
  if (s_useCount > 0) {
    --s_useCount;
  }
  if (s_useCount == 0) {
    delete s_instance;
    s_instance = nullptr;
  }
}

bool StunSettingsAccessor::Load(u32 kind) {
  if (CurrentNatConfig() == nullptr || kind > 2) {
    return false;
  }
  m_setting1 = ReadConfig(&NatConfig::stunSetting1);
  m_setting2 = ReadConfig(&NatConfig::stunSetting2);
  m_setting3 = ReadConfig(&NatConfig::stunSetting3);
  m_serverPort = std::to_string(ReadConfig(&NatConfig::stunServerPort));
  m_serverHost = ReadConfig(&NatConfig::stunServerHost);
  m_servers.clear();
  m_servers.push_back({m_serverHost, m_serverPort});
  return true;
}
