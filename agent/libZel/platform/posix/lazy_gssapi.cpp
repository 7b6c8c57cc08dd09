// GSSAPI, loaded at its first use: few agents ever log in to a file server by themselves, and the
// library comes with all of Kerberos. Whoever links this file instead of GSSAPI calls these
// functions, which stay inside the library that links them. Where it is missing, they throw.

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>

#include "agent/libZel/platform/posix/loaded_function.h"

namespace {

/// Throws std::runtime_error when there is none.
template <typename Function>
Function* Load(Function* declared, const char* name) {
  return LoadFunction(declared, "libgssapi_krb5.so.2", "GSSAPI", name);
}

}  // namespace

extern "C" {

OM_uint32 gss_import_name(OM_uint32* minor, gss_buffer_t text, gss_OID type, gss_name_t* name) {
  static const auto real = Load(&gss_import_name, "gss_import_name");
  return real(minor, text, type, name);
}

OM_uint32 gss_release_name(OM_uint32* minor, gss_name_t* name) {
  static const auto real = Load(&gss_release_name, "gss_release_name");
  return real(minor, name);
}

OM_uint32 gss_acquire_cred_from(OM_uint32* minor, gss_name_t name, OM_uint32 lifetime,
                                gss_OID_set mechanisms, gss_cred_usage_t usage,
                                gss_const_key_value_set_t store, gss_cred_id_t* credentials,
                                gss_OID_set* foundMechanisms, OM_uint32* foundLifetime) {
  static const auto real = Load(&gss_acquire_cred_from, "gss_acquire_cred_from");
  return real(minor, name, lifetime, mechanisms, usage, store, credentials, foundMechanisms,
              foundLifetime);
}

OM_uint32 gss_release_cred(OM_uint32* minor, gss_cred_id_t* credentials) {
  static const auto real = Load(&gss_release_cred, "gss_release_cred");
  return real(minor, credentials);
}

OM_uint32 gss_init_sec_context(OM_uint32* minor, gss_cred_id_t credentials, gss_ctx_id_t* context,
                               gss_name_t target, gss_OID mechanism, OM_uint32 flags,
                               OM_uint32 lifetime, gss_channel_bindings_t bindings,
                               gss_buffer_t received, gss_OID* foundMechanism, gss_buffer_t token,
                               OM_uint32* foundFlags, OM_uint32* foundLifetime) {
  static const auto real = Load(&gss_init_sec_context, "gss_init_sec_context");
  return real(minor, credentials, context, target, mechanism, flags, lifetime, bindings, received,
              foundMechanism, token, foundFlags, foundLifetime);
}

OM_uint32 gss_delete_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_buffer_t token) {
  static const auto real = Load(&gss_delete_sec_context, "gss_delete_sec_context");
  return real(minor, context, token);
}

OM_uint32 gss_inquire_sec_context_by_oid(OM_uint32* minor, const gss_ctx_id_t context,
                                         const gss_OID question, gss_buffer_set_t* answers) {
  static const auto real = Load(&gss_inquire_sec_context_by_oid, "gss_inquire_sec_context_by_oid");
  return real(minor, context, question, answers);
}

OM_uint32 gss_release_buffer(OM_uint32* minor, gss_buffer_t buffer) {
  static const auto real = Load(&gss_release_buffer, "gss_release_buffer");
  return real(minor, buffer);
}

OM_uint32 gss_release_buffer_set(OM_uint32* minor, gss_buffer_set_t* buffers) {
  static const auto real = Load(&gss_release_buffer_set, "gss_release_buffer_set");
  return real(minor, buffers);
}

OM_uint32 gss_display_status(OM_uint32* minor, OM_uint32 status, int kind, gss_OID mechanism,
                             OM_uint32* more, gss_buffer_t text) {
  static const auto real = Load(&gss_display_status, "gss_display_status");
  return real(minor, status, kind, mechanism, more, text);
}

}  // extern "C"
