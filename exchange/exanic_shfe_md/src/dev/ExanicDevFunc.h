#ifndef EXANIC_DEV_FUNC_H
#define EXANIC_DEV_FUNC_H

#include "ExanicMdTypes.h"
#include "config/ConfigParse.h"

#include <exanic/fifo_rx.h>

#include <cstdint>
#include <string>

// The card: CPU binding, handle, register window, receive buffers, the firmware's set-up and its
// data-path switches. Caller thread only.
class CExanicDevFunc {
public:
    // Both must outlive the object. `enabledMask` is const by declaration only: InitDev writes the
    // set of feeds that it programmed into the card.
    CExanicDevFunc(const ExanicMdConfigData& configData, const UEnableMask& enabledMask);

    // Brings the card up with the data paths still off: 0, or -1 with the reason logged. A failure
    // releases nothing that was acquired before it; a second call acquires everything anew.
    int32_t InitDev();

    // Releases what is held, in reverse order.
    void ReleaseDev();

    volatile uint32_t* GetRegisters() const { return m_pRegisters; }
    exanic_rx_t* GetTcpRxBuffer() const { return m_pTcpRxBuffer; }
    exanic_rx_t* GetUdpRxBuffer() const { return m_pUdpRxBuffer; }

    void StartOrigData();
    void StopOrigData();
    void StartDecodeData();
    void StopDecodeData();
    void StartAllIne();
    void StopAllIne();
    void StartAllShfe();
    void StopAllShfe();

private:
    int32_t _BindCpu();
    void _InitReg();
    void _SetIpAndPort(uint32_t ipReg, uint32_t portReg, const std::string& text);

    const ExanicMdConfigData& m_refConfigData;
    exanic_t* m_pNicHandler = nullptr;
    volatile uint32_t* m_pRegisters = nullptr; // devkit window, in 32-bit words
    exanic_rx_t* m_pTcpRxBuffer = nullptr;     // raw snapshot frames
    exanic_rx_t* m_pUdpRxBuffer = nullptr;     // decode buffers
    const UEnableMask& m_refEnabledMask;
};

#endif
