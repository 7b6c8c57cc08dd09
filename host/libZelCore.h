#pragma once

#include <cstdint>

#include "libZel.h"

// The agent core, as far as modules call it. Nothing here throws.

/// An action: reads its parameters from the container and writes its results into it. The result
/// code 0 means success. It runs on the thread that invoked it; several may run at once.
using ActionHandler = uint32_t (*)(ZelContainer* parameters);

/// Publishes an action. `signature` is its name, optionally followed by a blank and a parameter
/// list for people. `registrationContext` is the value that the module received with command
/// Register. Returns 0; 1 when the name is empty or taken, or the context is not one of the core's.
/// The handler must stay callable until the module is unloaded.
uint32_t ActionDbRegisterAction(const ZelString& signature, ActionHandler handler,
                                void* registrationContext);

/// Runs an action on this agent or another one and waits for it.
///
/// `targetAgent`    the other agent's identifier, or null for this agent; with a non-empty
///                  address it is only noted in the log, without one it must name this agent
/// `targetAddress`  the other agent's URL (http://host:port or https://host:port); empty for this
///                  agent. It may carry an agent's name and HTTP password
///                  (http://NAME:PW@host:port). Where `AgentSecuritySslForceSecCli` says so, http
///                  is https too
/// `action`         the name, without parameter list
/// `parameters`     its parameters; the results come back in it. Left as it was when the action
///                  could not be invoked
/// `reserved`       null
/// `timeoutMs`      how long a remote invocation may take; ~0U for the configured time
/// `options`        ~0U
/// `isAsynchronous` false
///
/// Returns the action's own result code, or a `kInvoke...` code when it did not run.
uint32_t ActionDbInvokeContainer(const ZelString* targetAgent, const ZelString& targetAddress,
                                 const ZelString& action, ZelContainer* parameters, void* reserved,
                                 uint32_t timeoutMs, uint32_t options, bool isAsynchronous);

/// Runs an action on the master server named in the agent's configuration, over a connection made
/// for this call. The two null pointers and `options` (~0U) are reserved; `timeoutMs` is how long
/// it may take, ~0U for the configured time. Returns the action's own
/// result code, or a `kInvoke...` code when it did not run; the log says which of not configured,
/// not reachable, refused and failed it was.
uint32_t InvokeContainerToMasterWithTempTunnel(const ZelString& action, ZelContainer& parameters,
                                               void* reserved1, void* reserved2, uint32_t timeoutMs,
                                               uint32_t options);

constexpr uint32_t kInvokeUnknownAction = 0x80000001;  ///< no action of that name is registered
constexpr uint32_t kInvokeFailed = 0x80000002;         ///< the handler failed with an exception
constexpr uint32_t kInvokeNotConfigured = 0x80000003;  ///< no address or credentials to go by
constexpr uint32_t kInvokeUnreachable = 0x80000004;    ///< no connection, or it broke or timed out
constexpr uint32_t kInvokeRefused = 0x80000005;        ///< certificate or credentials not accepted
constexpr uint32_t kInvokeBadReply = 0x80000006;       ///< the peer does not speak the protocol

/// The agent's data directory, ending in a separator.
void ZelAgentGetDataDir(ZelString& directory);
/// The agent's configuration directory, ending in a separator.
void ZelAgentGetConfigDir(ZelString& directory);
/// The agent's executable, a full path.
void ZelAgentGetExePath(ZelString& path);
/// The agent's handle of itself: on Windows the module handle of its executable, else null.
void* ZelAgentGetAppHandle();
/// This agent's name in its fleet.
void ZelAgentGetName(ZelString& name);
/// Takes an agent's name and gives back the password by which agents of the fleet know it; empty
/// without a fleet.
void ZelAgentGetHttpPassword(ZelString& nameThenPassword);
/// How this agent uses TLS with other agents: "_DB_SSL_HTTPS_SEND_" when it speaks it,
/// "_DB_SSL_HTTPS_SENDANDRECEIVE_" when it speaks and expects it,
/// "_DB_SSL_HTTPS_SENDANDRECEIVEEXT_" when it also expects a certificate of the other side,
/// "_DB_SSL_HTTPS_NONE_" otherwise.
void ZelAgentGetSecurity(ZelString& setting);

/// Whether connections to other agents must use TLS, and what for: the context is owned by the core
/// and valid until it stops. Null when the fleet's certificate authority is not configured.
bool AgentSecuritySslForceSecCli();
SslContext* AgentSecuritySslCliCtxAcquire();
/// Whether requests to other agents must carry a proof (PAC), and what for: the context is owned by
/// the core and valid until it stops. Null without a fleet secret.
bool AgentSecurityPacForceSecCli();
PacContext* AgentSecurityPacShrCtxAcquire();

/// Where the proxy of the logged-on user's session listens; empty when there is none. Ask anew each
/// time: sessions come and go.
void ZelAgentGetProxyPipeName(ZelString& pipeName);
/// The agent's hand on that session.
SysTray& ZelAgentGetSysTray();
/// The text for `key` in `language` (a tag such as "de" or "pt-BR"), or, when that is empty, in the
/// language of the logged-on user; in English when there is no such translation. An unknown key is
/// its own text and is logged once.
void ZelAgentGetTranslation(const ZelString& key, const ZelString& language, ZelString& text);
/// Where the agent's log and audit lines go; owned by the core, valid until it stops.
ZelDebugContext* ZelAgentGetDebugContext();
