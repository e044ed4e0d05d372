// Named settings over the settings database: a setting "class[.instance]
// .property" is one row of table system. Keys and values are bound to the
// statements, never written into them: both may hold anything, of any length.
#pragma once

#include <optional>
#include <string>

// Transactions and chains belong to a fuller settings system; here they are
// never created and their operations do nothing.
typedef struct config_txn config_txn_t;
typedef struct config_chain config_chain_t;

// Writes return what db_write returns: 0, or -2 when the engine refused the
// statement.
int config_set(const char *cls, const char *instance, const char *property, const char *value);
// The stored value, whole; nullopt when the setting is not stored (or cannot
// be read), so an empty value stays distinguishable from none.
std::optional<std::string> config_get(const char *cls, const char *instance, const char *property);
int config_remove(const char *cls, const char *instance, const char *property);

int platform_set_system(const char *property, const char *value);
// 0, or -1 when the switch refused the password or could not save its
// configuration.
int platform_set_password(const char *user, const char *pass);
int set_cloud_controller_status(const char *status);
// The two records below are sequences of independent writes whose single
// failures are not reported: config_add_tunnel returns 1 and
// config_set_openflow_controller 0, whatever happened, as they always have.
int config_add_tunnel(const char *ifname, const char *iftype, const char *addr, const char *desc,
                      const char *dyn, const char *updown);
int config_set_openflow_controller(const char *ip, const char *port, const char *ptcp,
                                   const char *ssl, const char *mode);

// Inert: kept so that callers written for a fuller settings system link.
void config_add_txn(config_txn_t **txn, int action, const char *cls, const char *instance,
                    const char *property, const char *value, const char *qproperty,
                    const char *qvalue);
void config_del_txn(config_txn_t *txn);
void config_do_txn(config_txn_t *txn, char **errmsg);
void config_add_chain(config_chain_t **chain, const char *property, const char *value);
void config_del_chain(config_chain_t *chain);
int config_set_chain(const char *cls, const char *instance, const char *qproperty,
                     const char *qvalue, config_chain_t *chain);
int config_set_qualified(const char *cls, const char *instance, const char *property,
                         const char *qproperty, const char *qvalue, const char *value);
int config_add(const char *cls, const char *instance, const char *property, const char *value);
// Never finds anything on this switch: always nullopt.
std::optional<std::string> config_get_qualified(const char *cls, const char *instance,
                                                const char *property, const char *qproperty,
                                                const char *qvalue);
