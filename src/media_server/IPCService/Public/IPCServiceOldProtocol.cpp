#include "media_server/IPCService/Public/IPCServiceOldProtocol.h"

#include <Poco/Net/SocketAddress.h>

namespace IPCService {

IPCServiceOldProtocol::IPCServiceOldProtocol(IPCServiceTransmitter* pTransmitter) : m_pTransmitter(pTransmitter) {}

int IPCServiceOldProtocol::send(const std::string& destPath, const QL_CMD_TYPE& /*cmd*/, const MSG_DATA& msg)
{
    const Poco::Net::SocketAddress address(Poco::Net::AddressFamily::UNIX_LOCAL, destPath);
    return m_pTransmitter->sendTo(&msg, static_cast<int>(sizeof(msg)), address);
}

int IPCServiceOldProtocol::receive(QL_CMD_TYPE& cmd, MSG_DATA& msg)
{
    const int received = m_pTransmitter->receiveBytes(&msg, static_cast<int>(sizeof(msg)));
    cmd = msg.command;
    return received;
}

int IPCServiceOldProtocol::poll(long seconds, long microseconds)
{
    return m_pTransmitter->PollRead(seconds, microseconds);
}

}  // namespace IPCService
