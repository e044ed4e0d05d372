// The switch API as the agent uses it: the OpEN types, result codes and client
// calls that orkad makes, and nothing more.
//
// This header is the seam between the agent and the switch. On the switch the
// vendor's client library provides these calls; everywhere else the build
// links the simulated switch in this folder, which serves the same calls from
// a model file in the device root. Every call takes the client handle first
// and returns an open_error_t.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The switch may answer with values beyond the named ones; in C++ the enums
// are int-based so that every such value is a valid one.
#ifdef __cplusplus
#define OPEN_ENUM_BASE : int
#else
#define OPEN_ENUM_BASE
#endif

typedef enum OPEN_ENUM_BASE {
    OPEN_E_NONE = 0,
    OPEN_E_RPC = -20,
    OPEN_E_INTERNAL = -21,
    OPEN_E_PARAM = -22,
    OPEN_E_FULL = -23,
    OPEN_E_EXISTS = -24,
    OPEN_E_TIMEOUT = -25,
    OPEN_E_FAIL = -26,
    OPEN_E_DISABLED = -27,
    OPEN_E_UNAVAIL = -28,
    OPEN_E_NOT_FOUND = -29,
    OPEN_E_EMPTY = -30,
    OPEN_E_ERROR = -31,
} open_error_t;

// A caller's buffer: texts go in with size counting the terminator; on the
// way out size is the room in pstart.
typedef struct {
    uint32_t size;
    void *pstart;
} open_buffdesc;

// Opaque to the agent; filled by openapiClientRegister.
typedef struct {
    unsigned char opaque[256];
} openapiClientHandle_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_LINK_UP = 0,
    OPEN_LINK_DOWN = 1,
} OPEN_LINK_STATE_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_DISABLE = 0,
    OPEN_ENABLE = 1,
} OPEN_CONTROL_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_PORTCTRL_PORTSPEED_AUTO_NEG = 1,
    OPEN_PORTCTRL_PORTSPEED_HALF_100TX = 2,
    OPEN_PORTCTRL_PORTSPEED_FULL_100TX = 3,
    OPEN_PORTCTRL_PORTSPEED_HALF_10T = 4,
    OPEN_PORTCTRL_PORTSPEED_FULL_10T = 5,
    OPEN_PORTCTRL_PORTSPEED_FULL_100FX = 6,
    OPEN_PORTCTRL_PORTSPEED_FULL_1000SX = 7,
    OPEN_PORTCTRL_PORTSPEED_FULL_10GSX = 8,
    OPEN_PORTCTRL_PORTSPEED_FULL_20GSX = 9,
    OPEN_PORTCTRL_PORTSPEED_FULL_40GSX = 10,
    OPEN_PORTCTRL_PORTSPEED_FULL_25GSX = 11,
    OPEN_PORTCTRL_PORTSPEED_FULL_50GSX = 12,
    OPEN_PORTCTRL_PORTSPEED_FULL_100GSX = 13,
    // Further speeds the switch may report; the agent does not tell them apart.
    OPEN_PORTCTRL_PORTSPEED_OTHER_14 = 14,
    OPEN_PORTCTRL_PORTSPEED_OTHER_15 = 15,
    OPEN_PORTCTRL_PORTSPEED_OTHER_128 = 128,
    OPEN_PORTCTRL_PORTSPEED_OTHER_129 = 129,
    OPEN_PORTCTRL_PORTSPEED_OTHER_130 = 130,
} OPEN_PORT_SPEEDS_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_PORT_DUPLEX_HALF = 0,
    OPEN_PORT_DUPLEX_FULL = 1,
    OPEN_PORT_DUPLEX_UNKNOWN = 2,
} OPEN_PORT_DUPLEX_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_INTF_TYPE_PHY = 0,
    OPEN_INTF_TYPE_CPU = 1,
    OPEN_INTF_TYPE_LAG = 2,
    OPEN_INTF_TYPE_VLAN = 3,
    OPEN_INTF_TYPE_OTHER = 4,
} OPEN_INTF_TYPE_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_SNTP_CLIENT_DISABLED = 0,
    OPEN_SNTP_CLIENT_UNICAST = 1,
    OPEN_SNTP_CLIENT_BROADCAST = 2,
} OPEN_SNTP_CLIENT_MODE_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_PORT_AUTO_NEG_DISABLE = 0,
    OPEN_PORT_AUTO_NEG_ENABLE = 1,
} OPEN_PORT_AUTO_NEG_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_LOG_SEVERITY_EMERGENCY = 0,
    OPEN_LOG_SEVERITY_ALERT = 1,
    OPEN_LOG_SEVERITY_CRITICAL = 2,
    OPEN_LOG_SEVERITY_ERROR = 3,
    OPEN_LOG_SEVERITY_WARNING = 4,
    OPEN_LOG_SEVERITY_NOTICE = 5,
    OPEN_LOG_SEVERITY_INFO = 6,
    OPEN_LOG_SEVERITY_DEBUG = 7,
} OPEN_LOG_SEVERITY_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_CHASSIS_COMPONENT = 1,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_INTERFACE_ALIAS = 2,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_PORT_COMPONENT = 3,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_MAC_ADDRESS = 4,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_NETWORK_ADDRESS = 5,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_INTERFACE_NAME = 6,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_LOCAL = 7,
} OPEN_LLDP_CHASSIS_ID_SUBTYPE_t;

typedef enum OPEN_ENUM_BASE {
    OPEN_LLDP_PORT_ID_SUBTYPE_INTERFACE_ALIAS = 1,
    OPEN_LLDP_PORT_ID_SUBTYPE_PORT_COMPONENT = 2,
    OPEN_LLDP_PORT_ID_SUBTYPE_MAC_ADDRESS = 3,
    OPEN_LLDP_PORT_ID_SUBTYPE_NETWORK_ADDRESS = 4,
    OPEN_LLDP_PORT_ID_SUBTYPE_INTERFACE_NAME = 5,
    OPEN_LLDP_PORT_ID_SUBTYPE_AGENT_CIRCUIT_ID = 6,
    OPEN_LLDP_PORT_ID_SUBTYPE_LOCAL = 7,
} OPEN_LLDP_PORT_ID_SUBTYPE_t;

// Address family of an LLDP management address; 0 starts a walk.
typedef enum OPEN_ENUM_BASE {
    OPEN_AF_NONE = 0,
    OPEN_AF_INET = 1,
    OPEN_AF_INET6 = 2,
} OPEN_AF_t;

// Client connection.
open_error_t openapiClientRegister(const char *clientName, openapiClientHandle_t *client);
open_error_t rpcclt_openapiConnectivityCheck(openapiClientHandle_t *client);

// Interfaces.
open_error_t openapiIfFirstGet(openapiClientHandle_t *client, OPEN_INTF_TYPE_t type,
                               uint32_t *ifNum);
open_error_t openapiIfNextGet(openapiClientHandle_t *client, OPEN_INTF_TYPE_t type, uint32_t ifNum,
                              uint32_t *nextIfNum);
open_error_t openapiIfLinkStateGet(openapiClientHandle_t *client, uint32_t ifNum,
                                   OPEN_LINK_STATE_t *linkState);
open_error_t openapiIfAdminStateGet(openapiClientHandle_t *client, uint32_t ifNum,
                                    OPEN_CONTROL_t *adminState);
open_error_t rpcclt_openapiIfAdminStateSet(openapiClientHandle_t *client, uint32_t ifNum,
                                           OPEN_CONTROL_t adminState);
open_error_t openapiIfSpeedGet(openapiClientHandle_t *client, uint32_t ifNum,
                               OPEN_PORT_SPEEDS_t *speed);
open_error_t rpcclt_openapiIfDuplexModeGet(openapiClientHandle_t *client, uint32_t ifNum,
                                           OPEN_PORT_DUPLEX_t *duplex);
// MAC address as text, "xx:xx:xx:xx:xx:xx".
open_error_t rpcclt_openapiIfMacAddrGet(openapiClientHandle_t *client, uint32_t ifNum,
                                        open_buffdesc *macAddr);
open_error_t openapiIfNameGet(openapiClientHandle_t *client, uint32_t ifNum, open_buffdesc *ifName);
open_error_t rpcclt_openapiIfAutoNegSet(openapiClientHandle_t *client, uint32_t ifNum,
                                        OPEN_PORT_AUTO_NEG_t autoNeg);

// LLDP.
open_error_t rpcclt_openapiLldpIntfReceiveModeGet(openapiClientHandle_t *client, uint32_t ifNum,
                                                  OPEN_CONTROL_t *mode);
open_error_t rpcclt_openapiLldpIntfReceiveModeSet(openapiClientHandle_t *client, uint32_t ifNum,
                                                  OPEN_CONTROL_t mode);
// Buffer size every LLDP text fits in, terminator included.
open_error_t rpcclt_openapiLldpMgmtStrLenGet(openapiClientHandle_t *client, uint32_t *strLen);
// Walks the remote devices of a port: start with index and timestamp 0.
open_error_t rpcclt_openapiLldpIntfRemoteDeviceNextGet(openapiClientHandle_t *client,
                                                       uint32_t ifNum, uint32_t *remIndex,
                                                       uint32_t *timestamp);
open_error_t rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet(
    openapiClientHandle_t *client, uint32_t ifNum, uint32_t remIndex, uint32_t timestamp,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_t *chassisIdSubtype, open_buffdesc *chassisId);
open_error_t rpcclt_openapiLldpIntfRemoteDevicePortIdGet(openapiClientHandle_t *client,
                                                         uint32_t ifNum, uint32_t remIndex,
                                                         uint32_t timestamp,
                                                         OPEN_LLDP_PORT_ID_SUBTYPE_t *portIdSubtype,
                                                         open_buffdesc *portId);
open_error_t rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet(openapiClientHandle_t *client,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t timestamp,
                                                             open_buffdesc *systemName);
open_error_t rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet(openapiClientHandle_t *client,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t timestamp,
                                                             open_buffdesc *systemDesc);
open_error_t rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet(openapiClientHandle_t *client,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t timestamp,
                                                             open_buffdesc *sysCapSupp);
open_error_t rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet(openapiClientHandle_t *client,
                                                                uint32_t ifNum, uint32_t remIndex,
                                                                uint32_t timestamp,
                                                                open_buffdesc *sysCapEnabled);
// Walks the management addresses of a remote device: start with family 0.
open_error_t rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(
    openapiClientHandle_t *client, uint32_t ifNum, uint32_t remIndex, uint32_t timestamp,
    OPEN_AF_t *addressFamily, open_buffdesc *address, uint8_t *addressLength);

// VLANs.
open_error_t openapiVlanNextGet(openapiClientHandle_t *client, uint32_t vlanNum,
                                uint32_t *nextVlanNum);
open_error_t openapiVlanIfParticipationStatusGet(openapiClientHandle_t *client, uint32_t vlanNum,
                                                 uint32_t ifNum, uint32_t *participating);
open_error_t rpcclt_openapiVlanNameGet(openapiClientHandle_t *client, uint32_t vlanNum,
                                       open_buffdesc *vlanName);

// Logging.
open_error_t rpcclt_openapiLoggingHostAdd(openapiClientHandle_t *client, open_buffdesc *host);
open_error_t rpcclt_openapiLoggingHostPortSet(openapiClientHandle_t *client, open_buffdesc *host,
                                              uint16_t port);
open_error_t rpcclt_openapiLoggingHostSeveritySet(openapiClientHandle_t *client,
                                                  open_buffdesc *host,
                                                  OPEN_LOG_SEVERITY_t severity);
open_error_t rpcclt_openapiSysLogModeSet(openapiClientHandle_t *client, OPEN_CONTROL_t mode);

// Time.
open_error_t rpcclt_openapiSntpServerAdd(openapiClientHandle_t *client, open_buffdesc *server);
open_error_t rpcclt_openapiSntpClientModeSet(openapiClientHandle_t *client,
                                             OPEN_SNTP_CLIENT_MODE_t mode);

// Users and configuration.
open_error_t rpcclt_openapiUserSet(openapiClientHandle_t *client, open_buffdesc *userName,
                                   open_buffdesc *password);
open_error_t rpcclt_openapiSaveConfig(openapiClientHandle_t *client);
open_error_t rpcclt_openapiSystemPromptMaxSizeGet(openapiClientHandle_t *client, uint32_t *maxSize);
open_error_t rpcclt_openapiSystemPromptSet(openapiClientHandle_t *client, open_buffdesc *prompt);

// Application control.
open_error_t rpcclt_openapiAppCtrlVersionSet(openapiClientHandle_t *client, open_buffdesc *appName,
                                             open_buffdesc *version);
open_error_t rpcclt_openapiAppCtrlStatusSet(openapiClientHandle_t *client, open_buffdesc *appName,
                                            open_buffdesc *status);

// Cloud management.
open_error_t rpcclt_openapiCloudManagedModeGet(openapiClientHandle_t *client, OPEN_CONTROL_t *mode);
open_error_t rpcclt_openapiCloudManagedServerUrlGet(openapiClientHandle_t *client,
                                                    open_buffdesc *url);

// System identity and control.
open_error_t rpcclt_openapiSystemRegSerialNumGet(openapiClientHandle_t *client,
                                                 open_buffdesc *serialNum);
open_error_t rpcclt_openapiSystemRegMachineModelGet(openapiClientHandle_t *client,
                                                    open_buffdesc *model);
// The system MAC address as 6 raw bytes.
open_error_t rpcclt_openapiSystemMacAddrGet(openapiClientHandle_t *client, open_buffdesc *macAddr);
open_error_t rpcclt_openapiSystemReload(openapiClientHandle_t *client);
open_error_t rpcclt_openapiSystemFileNameMaxLengthGet(openapiClientHandle_t *client,
                                                      uint32_t *maxLen);
// The switch writes its support data to the named file.
open_error_t rpcclt_openapiSupportFileGenerate(openapiClientHandle_t *client,
                                               open_buffdesc *fileName);

#ifdef __cplusplus
}
#endif
