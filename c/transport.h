// What the C interface's other half asks of the host's transport. Threads: any.
#ifndef C_TRANSPORT_H_
#define C_TRANSPORT_H_

namespace host_transport {

bool IsSet();
// From the first reporter on it stays what it is.
void Fix();

}  // namespace host_transport

#endif  // C_TRANSPORT_H_
