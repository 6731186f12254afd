// How the file protocol applies what the pre-authentication hook supplied.
#pragma once

#include "net/host/platform.h"
#include "net/http/http_request.h"

namespace qv::net::detail {

// Sets the credentials on `connection` for the challenge of `status`: the user name and password
// options for a 401, the proxy ones for a 407. The next send on a request of that connection
// answers the challenge with them.
void ApplyCredentials(HINTERNET connection, DWORD status, const HttpCredentials& credentials);

}  // namespace qv::net::detail
