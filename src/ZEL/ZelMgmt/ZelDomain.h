// What the Zel domain routines share: where a domain's entry lies in each
// storage form, and the search that tells a first-generation domain from a
// security domain one.
//
// First generation: eZelDomain entries in cn=Zel Domains of the Zel database,
// named by cn, members in targetLocation as "T:<service>".  Security domain
// form: secResGroup entries in cn=ResourceGroups of the domain, named by
// secResGroupID, members in member as the DNs of the services' entries.
#pragma once

#include "ZelHolders.h"

namespace zel {

// locate_ZEL_Domain modes.
constexpr int32_t kFirstGenerationDomains = 1;
constexpr int32_t kSecurityDomainDomains = 2;

// locate_ZEL_Domain into an owned result.  A missing base (32) is passed on
// as it stands, with whatever message came back.
ZelRC search_domains(ZelSession *s, const char *name, int32_t mode, Message &res);

// Looks for a first-generation domain of that name below the Zel database,
// which the session must know.  Any failure, 32 included, is returned.
ZelRC first_generation_domain_exists(ZelSession *s, const char *name, bool &exists);

// The DN of the domain's entry in the chosen form, the name escaped as an
// attribute value.  1005 when it would not fit a DN buffer.
ZelRC domain_entry_dn(const ZelSession *s, const char *name, bool first_gen, std::string &dn);

}  // namespace zel
