// Provisioning through the torture runner: creating and removing the
// database, and persons; on the Orv directory the removal, which probes the
// schema first.  Creation on eDirectory is left out: it answers the member
// edit's own status and ignores what the access steps answer, so a memory
// failure there may end in 0 by design.
#include "support/family_fixture.h"
#include "torture/torture.h"
#include "ZelRoutines.h"

using namespace famtest;
using torture::Scenario;

namespace {

template <Kind K>
class ProvisioningTorture : public DatabaseTestAs<K> {
protected:
    torture::Step with_database() {
        return [this](ZelSession *) {
            if (!this->dir->exists(kDb)) (void)this->create();
        };
    }
    Scenario create_scenario(unsigned char flags) {
        return {"create", [](ZelSession *z) { (void)delete_tree(z, kDb.c_str()); },
                [this, flags](ZelSession *) { return this->create(flags); }};
    }
    Scenario remove_scenario() {
        return {"remove", with_database(), [](ZelSession *z) { return Zel_removeDatabase(z); }};
    }
};
using DatabaseTorture = ProvisioningTorture<Kind::Generic>;
using ProbedDatabaseTorture = ProvisioningTorture<Kind::Orv>;

}  // namespace

TEST_F(DatabaseTorture, Torture) {
    const torture::Step with_db = with_database();
    ZelPerson ann{const_cast<char *>("o=acme"), const_cast<char *>("Ann"), const_cast<char *>("Ann"), nullptr,
                  const_cast<char *>("ann"), nullptr};
    torture::run("database", s.get(), {
        create_scenario(ZEL_CREATEDB_EXTENDED | ZEL_CREATEDB_XR_DEFAULTS),
        remove_scenario(),
        {"person", [=](ZelSession *z) { with_db(z); (void)Zel_removeZelUser(z, "ann"); },
         [&](ZelSession *z) { return Zel_create_ePerson(z, &ann, "XR User"); }},
    });
}

// Removal first probes whether the schema can be written; slapd refuses it.
// A failed probe's status is mapped a second time: "server down" ends as a
// protocol error.
TEST_F(ProbedDatabaseTorture, Torture) {
    Scenario remove = remove_scenario();
    remove.also = {ZEL_RC_PROTOCOL_ERROR};
    remove.success = ZEL_RC_REQUEST_ERROR;
    torture::run("database-probed", s.get(), {remove});
}
