/* Where the P4Runtime gRPC server listens, and how it knows its clients. Functions may be called
 * from any thread. */
#pragma once

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Paths of PEM files. The server reads them again when they change: new connections use them, those
 * that are there go on. Files that do not fit together leave the former ones in force. */
typedef struct {
  const char* certificate; /* the server's, then its intermediates */
  const char* key;         /* without a passphrase */
  const char* client_ca;   /* those who sign clients' certificates, which clients must have */
  const char* crl;         /* of those; NULL: none */
} PIGrpcServerCertificates_t;

typedef struct {
  const char* path;
  uint32_t mode;
  uid_t user;  /* -1: the process's */
  gid_t group; /* -1: the process's */
} PIGrpcServerUnixSocket_t;

/* As PIGrpcServerRunAddr(). TLS with client certificates on the address, or plain without
 * `certificates`; and beside it a Unix socket, always plain. Either the address or the Unix socket
 * may be NULL. */
int PIGrpcServerRunWith(const char* server_address, const PIGrpcServerCertificates_t* certificates,
                        const PIGrpcServerUnixSocket_t* unix_socket);

/* Removes the file of the Unix socket, for a process that is about to end without shutting its
 * server down; the socket itself goes with the process. */
void PIGrpcServerRemoveUnixSocket(void);

/* Of the running server: whose certificate it shows, and until when; empty without TLS. Then lines
 * on files that are not in force, and warnings; empty when all is well. Both last until the thread
 * calls the function again. */
const char* PIGrpcServerCertificate(void);
const char* PIGrpcServerCertificateTrouble(void);

#ifdef __cplusplus
}

#include <memory>

namespace grpc {
class Channel;
}

/* To the running server, from its own process: no socket, no TLS, and no place among the
 * connections. Null when no server runs. */
std::shared_ptr<grpc::Channel> PIGrpcServerOwnChannel();
#endif
