#pragma once

/// Publishes every action of the module to the agent core, in the order of the registry's table.
/// `registrationContext` is what the agent passed with command 1; it is handed on unchanged. What
/// the core answers is not looked at: the agent goes on without an action that it refused.
///
/// The handlers that the core receives throw nothing: an exception is logged, empties the container
/// and becomes `kFailure`.
void RegisterActions(void* registrationContext);
