#include "dev/ExanicDevFunc.h"

#include "CommonLog.h"
#include "dev/FpgaRegisters.h"

#include <exanic/exanic.h>
#include <exanic/util.h>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdlib>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicDevFunc";
constexpr size_t CPU_SET_BYTES = 128; // 1024 CPUs
static_assert(sizeof(cpu_set_t) == CPU_SET_BYTES);

} // namespace

CExanicDevFunc::CExanicDevFunc(const ExanicMdConfigData& configData, const UEnableMask& enabledMask)
    : m_refConfigData(configData), m_refEnabledMask(enabledMask) {}

int32_t CExanicDevFunc::InitDev() {
    const char* device = m_refConfigData.device.c_str();
    _BindCpu(); // a feed that is not pinned still works

    m_pNicHandler = exanic_acquire_handle(device);
    if (m_pNicHandler == nullptr) {
        MD_LOG(LOG_ERROR, "get [%s] handle failed, %s", device, exanic_get_last_error());
        return RET_FAILED;
    }
    m_pRegisters = exanic_get_devkit_registers(m_pNicHandler);
    if (m_pRegisters == nullptr) {
        MD_LOG(LOG_ERROR, "get [%s] registers failed, %s", device, exanic_get_last_error());
        return RET_FAILED;
    }
    m_pTcpRxBuffer = exanic_acquire_rx_buffer(m_pNicHandler, EXANIC_RECV_PORT_ORIG, 0);
    if (m_pTcpRxBuffer == nullptr) {
        MD_LOG(LOG_ERROR, "get [%s] tcp rx buffer failed, %s", device, exanic_get_last_error());
        return RET_FAILED;
    }
    m_pUdpRxBuffer = exanic_acquire_rx_buffer(m_pNicHandler, EXANIC_RECV_PORT_DECODE, 0);
    if (m_pUdpRxBuffer == nullptr) {
        MD_LOG(LOG_ERROR, "get [%s] udp rx buffer failed, %s", device, exanic_get_last_error());
        return RET_FAILED;
    }
    _InitReg();
    return RET_OK;
}

void CExanicDevFunc::ReleaseDev() {
    if (m_pUdpRxBuffer != nullptr) {
        exanic_release_rx_buffer(m_pUdpRxBuffer);
        m_pUdpRxBuffer = nullptr;
    }
    if (m_pTcpRxBuffer != nullptr) {
        exanic_release_rx_buffer(m_pTcpRxBuffer);
        m_pTcpRxBuffer = nullptr;
    }
    if (m_pNicHandler != nullptr) {
        exanic_release_handle(m_pNicHandler);
        m_pNicHandler = nullptr;
    }
    m_pRegisters = nullptr; // the window went with the handle
}

void CExanicDevFunc::StartOrigData() {
    m_pRegisters[EXANIC_FPGA_ORIG_DATA_SW] = 1;
}
void CExanicDevFunc::StopOrigData() {
    m_pRegisters[EXANIC_FPGA_ORIG_DATA_SW] = 0;
}
void CExanicDevFunc::StartDecodeData() {
    m_pRegisters[EXANIC_FPGA_DECODE_SW] = 1;
}
void CExanicDevFunc::StopDecodeData() {
    m_pRegisters[EXANIC_FPGA_DECODE_SW] = 0;
}
void CExanicDevFunc::StartAllIne() {
    m_pRegisters[EXANIC_FPGA_ALL_INE_SW] = 1;
}
void CExanicDevFunc::StopAllIne() {
    m_pRegisters[EXANIC_FPGA_ALL_INE_SW] = 0;
}
void CExanicDevFunc::StartAllShfe() {
    m_pRegisters[EXANIC_FPGA_ALL_SHFE_SW] = 1;
}
void CExanicDevFunc::StopAllShfe() {
    m_pRegisters[EXANIC_FPGA_ALL_SHFE_SW] = 0;
}

int32_t CExanicDevFunc::_BindCpu() {
    const int cpu = m_refConfigData.cpucore;
    // A number equal to the processor count passes here and is refused by the kernel below.
    if (cpu < 0 || cpu > get_nprocs()) {
        MD_LOG(LOG_WARNING, "CPU[%d] exceed max procs", cpu);
        return RET_FAILED;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu < CPU_SETSIZE) {
        CPU_SET(cpu, &set);
    }
    if (sched_setaffinity(0, CPU_SET_BYTES, &set) != 0) {
        MD_LOG(LOG_WARNING, "set CPU[%d] affinity failed", cpu);
        return RET_FAILED;
    }
    MD_LOG(LOG_INFO, "set CPU[%d] affinity successful", cpu);
    return RET_OK;
}

void CExanicDevFunc::_InitReg() {
    const ExanicMdConfigData& config = m_refConfigData;
    const uint32_t version = m_pRegisters[EXANIC_FPGA_VERSION];
    const uint32_t buildStamp = m_pRegisters[EXANIC_FPGA_DATA];
    MD_LOG(LOG_INFO, "FPGA version: %x, update data: %x", version, buildStamp);

    m_pRegisters[EXANIC_FPGA_RESET] = 1;
    m_pRegisters[EXANIC_FPGA_RESET] = 0;
    usleep(1);

    // One feed of an exchange at most; 4PS goes before 2PS. The addresses of an exchange whose
    // feeds are off stay as they were.
    UEnableMask& enabled = const_cast<UEnableMask&>(m_refEnabledMask);
    enabled.mask = 0;
    if (config.shfe4ps) {
        _SetIpAndPort(EXANIC_FPGA_SHFE_IP_A, EXANIC_FPGA_SHFE_PORT_A, config.shfe4ps_ip_a);
        _SetIpAndPort(EXANIC_FPGA_SHFE_IP_B, EXANIC_FPGA_SHFE_PORT_B, config.shfe4ps_ip_b);
        enabled.mask |= MASK_SHFE_4PS;
    } else if (config.shfe2ps) {
        _SetIpAndPort(EXANIC_FPGA_SHFE_IP_A, EXANIC_FPGA_SHFE_PORT_A, config.shfe2ps_ip_a);
        _SetIpAndPort(EXANIC_FPGA_SHFE_IP_B, EXANIC_FPGA_SHFE_PORT_B, config.shfe2ps_ip_b);
        enabled.mask |= MASK_SHFE_2PS;
    }
    if (config.ine4ps) {
        _SetIpAndPort(EXANIC_FPGA_INE_IP_A, EXANIC_FPGA_INE_PORT_A, config.ine4ps_ip_a);
        _SetIpAndPort(EXANIC_FPGA_INE_IP_B, EXANIC_FPGA_INE_PORT_B, config.ine4ps_ip_b);
        enabled.mask |= MASK_INE_4PS;
    } else if (config.ine2ps) {
        _SetIpAndPort(EXANIC_FPGA_INE_IP_A, EXANIC_FPGA_INE_PORT_A, config.ine2ps_ip_a);
        _SetIpAndPort(EXANIC_FPGA_INE_IP_B, EXANIC_FPGA_INE_PORT_B, config.ine2ps_ip_b);
        enabled.mask |= MASK_INE_2PS;
    }

    m_pRegisters[EXANIC_FPGA_ALL_INE_SW] = 0;
    m_pRegisters[EXANIC_FPGA_ALL_SHFE_SW] = 0;
    m_pRegisters[EXANIC_FPGA_START_PKT_NO] = 0;
    m_pRegisters[EXANIC_FPGA_SPLIT_ALL_FIELD] =
        static_cast<uint32_t>(int32_t{config.split_all_field});

    for (uint32_t n = 0; n < INE_MAX_INST_CNT; ++n) {
        m_pRegisters[EXANIC_FPGA_INE_ADDR_WR] = n;
        m_pRegisters[EXANIC_FPGA_INE_DATA_WR] = 0;
    }
    for (uint32_t n = 0; n < SHFE_MAX_INST_CNT; ++n) {
        m_pRegisters[EXANIC_FPGA_SHFE_ADDR_WR] = n;
        m_pRegisters[EXANIC_FPGA_SHFE_DATA_WR] = 0;
    }
}

void CExanicDevFunc::_SetIpAndPort(uint32_t ipReg, uint32_t portReg, const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        m_pRegisters[ipReg] = 0;
        m_pRegisters[portReg] = 0;
        return;
    }
    const std::string address = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    m_pRegisters[ipReg] = ntohl(inet_addr(address.c_str()));
    m_pRegisters[portReg] = static_cast<uint32_t>(strtol(port.c_str(), nullptr, 10));
}
