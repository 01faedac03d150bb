// Provisioning through the torture runner: creating and removing the
// database, and persons.
#include "database/db_fixture.h"
#include "torture/torture.h"

using namespace dbtest;

TEST_F(DatabaseTest, Torture) {
    auto create_db = [this](ZelSession *) {
        if (!dir->exists(kDb)) (void)create();
    };
    ZelPerson ann{const_cast<char *>("o=acme"), const_cast<char *>("Ann"), const_cast<char *>("Ann"), nullptr,
                  const_cast<char *>("ann"), nullptr};
    torture::run("database", s.get(), {
        {"create", [](ZelSession *s) { (void)delete_tree(s, kDb.c_str()); },
         [this](ZelSession *) { return create(ZEL_CREATEDB_EXTENDED | ZEL_CREATEDB_XR_DEFAULTS); }},
        {"remove", create_db, [](ZelSession *s) { return Zel_removeDatabase(s); }},
        {"person", [=](ZelSession *s) { create_db(s); (void)Zel_removeZelUser(s, "ann"); },
         [&](ZelSession *s) { return Zel_create_ePerson(s, &ann, "XR User"); }},
    });
}
