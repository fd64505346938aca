#include "agent/nat_agent.h"

#include "agent/faults.h"
#include "agent/host_events.h"
#include "agent/library_state.h"
#include "messaging/nat_agent_messenger.h"
#include "platform/vxsysutils/thread.h"

namespace {

constexpr char kLogFile[] = "natagent.log";
constexpr unsigned long kWorkerWaitMs = 1000;
constexpr unsigned long kAgentWaitMs = 10000;

}  // namespace

NatAgent::NatAgent()
    : m_configManager(nullptr),
      m_qorStorage(nullptr),
      m_log(nullptr),
      m_messenger(nullptr),
      m_upLinkIp(0),
      m_resolverThread(nullptr),
      m_ipWatchThread(nullptr),
      m_routeChanged(false),
      m_namesResolved(false),
      m_running(false) {
  Contain("the uplink is not looked up yet", [this] {
    ScopedLock lock(g_settingsLock);
    GetUpLinkIp();
  });
  m_resolveEvent.Create(0, 1);
}

NatAgent::~NatAgent() {
  if (g_agentThread != nullptr) {
    // Unloaded while it runs: the agent thread takes the agent down before its object goes.
    RequestStop();
    Thread::WaitForThread(g_agentThread, kAgentWaitMs, nullptr);
    g_agentThread = nullptr;
  }
  Thread::WaitForAbandoned(kAgentWaitMs);  // their code goes with the library
  Stop();
  m_resolveEvent.Destroy();
}

bool NatAgent::Init() { return true; }

bool NatAgent::Start() {
  if (m_running) {
    return true;
  }
  m_running = true;
  bool ran = false;
  Contain("the agent cannot run", [this, &ran] {
    CreateParts();
    if (m_namesResolved || m_routeChanged) {
      m_messenger->Wake();  // what came behind the last turn of the run before
    }
    StartWorkers();
    m_log->Trace("Starting Nat Agent Messenger\r\n", kLogOrdinary);
    ran = m_messenger->Run();  // it has stopped the agent: the messenger and the log are gone
  });
  if (!ran) {
    HostEvents::Tell(NAT_EVENT_FAILED, "the main loop could not run");
    Log().Trace("Error Can't Start Nat Agent Messenger\r\n", kLogOrdinary);
    Stop();
  }
  ForgetStopRequest();  // it was this run's
  return ran;
}

bool NatAgent::Stop() {
  if (!m_running) {
    return true;
  }
  m_running = false;
  {
    ScopedLock lock(g_settingsLock);
    if (m_stunWrapper.IsRunning()) {
      m_stunWrapper.Stop();
      Log().Trace("Stun Agent stoped\r\n", kLogOrdinary);
    }
  }
  StopWorkers();
  DestroyParts();
  HostEvents::Tell(NAT_EVENT_STOPPED, "");
  return true;
}

void NatAgent::CreateParts() {
  ScopedLock lock(g_settingsLock);
  m_startedAt = SettingsState::Now();
  m_settings.signalling = m_settings.media = {};
  m_counters = {};
  m_changedMappings = 0;
  m_toldUplink = m_upLinkIp;
  m_log = new NatLogOut((m_logDir.empty() ? kLogFile : m_logDir + "/" + kLogFile).c_str());
  m_qorStorage = new QorMappingStorage;
  m_configManager = new NatConfigManager;
  m_messenger = new NatAgentMessenger;
  ScopedLock runLock(m_runMutex);
  m_run = std::make_shared<RunLink>(*this, *m_messenger, *m_log);
}

void NatAgent::DestroyParts() {
  std::shared_ptr<RunLink> run = CurrentRun();
  {
    ScopedLock runLock(m_runMutex);
    m_run.reset();
  }
  if (run) {
    run->Close();
  }
  ScopedLock lock(g_settingsLock);
  m_stunWrapper.Stop();  // a reload of the host's may have started it again since the loop ended
  delete m_qorStorage;
  m_qorStorage = nullptr;
  delete m_configManager;
  m_configManager = nullptr;
  delete m_messenger;
  m_messenger = nullptr;
  LeaveAllBehind();
  delete m_log;
  m_log = nullptr;
  m_ipWatchThread = nullptr;
  m_resolverThread = nullptr;
}

void NatAgent::StartWorkers() {
  m_ipWatchThread = BeginWorker(IpUpDownInformer);
  if (m_ipWatchThread == nullptr) {
    m_log->Trace("Error Can't Start IpUpDownInformer\r\n", kLogOrdinary);
  }
  m_resolverThread = BeginWorker(HostNameResolver);
  if (m_resolverThread == nullptr) {
    m_log->Trace("Error Can't Start HostNameResolver\r\n", kLogOrdinary);
  }
}

void* NatAgent::BeginWorker(unsigned long (*function)(void*)) {
  auto run = std::make_unique<std::shared_ptr<RunLink>>(CurrentRun());
  void* const thread = Thread::BeginThread(function, run.get(), 0);
  if (thread != nullptr) {
    static_cast<void>(run.release());  // the thread's now
  }
  return thread;
}

void NatAgent::StopWorkers() {
  if (const auto run = CurrentRun()) {
    run->End();
  }
  NatLogOut& log = Log();
  log.Trace("Stoping host name resolver thread\r\n", kLogOrdinary);
  {
    ScopedLock lock(m_resolveEvent);
    m_resolveEvent.SetEvent();
  }
  Thread::WaitForThread(m_resolverThread, kWorkerWaitMs, nullptr);
  log.Trace("Resolver thread stoped\r\n", kLogOrdinary);
  log.Trace("Stoping IP Change informer thread\r\n", kLogOrdinary);
  if (m_ipWatchThread != nullptr) {
    m_routeHelper.StopNotifyRtChange();
  }
  Thread::WaitForThread(m_ipWatchThread, kWorkerWaitMs, nullptr);
  log.Trace("IP Change informer thread stoped\r\n", kLogOrdinary);
}

std::shared_ptr<RunLink> NatAgent::CurrentRun() {
  ScopedLock lock(m_runMutex);
  return m_run;
}

bool NatAgent::StopMessenger() {
  const auto run = CurrentRun();
  return run && run->StopMessenger();
}

void NatAgent::RequestStop() {
  m_stopRequested = true;
  StopMessenger();
}

NatCAMessenger* NatAgent::ChannelOf(const CA_PROTO& proto) {
  return m_messenger != nullptr ? m_messenger->GetCAMessenger(proto) : nullptr;
}

bool NatAgent::IsCAOnLine(const CA_PROTO& proto) {
  const NatCAMessenger* channel = ChannelOf(proto);
  return channel != nullptr && channel->IsPartyOnline();
}

bool NatAgent::IsOnLineCSAgent() { return IsCAOnLine(CA_PROTO_SIP); }

bool NatAgent::IsCorrectAddInfo(const unsigned long& value) { return value == 1; }

bool NatAgent::GetMappedQorPort(NatSetting&) { return false; }
