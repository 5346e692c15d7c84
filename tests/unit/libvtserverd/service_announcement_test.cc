// The line by which a hub announces itself.
#include <cstdlib>

#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/work_dir.h"

TEST(ServiceAnnouncement, IsOneLineWithTheVersionAndAPlaceForTheHostName)
{
    const TemporaryDirectory directory;
    {
        const veltrane::FilePtr file(fopen((directory.path / "service").c_str(), "w"));
        ASSERT_NE(file, nullptr);
        FprintAvahiVeltraneTag__real(file.get());
    }
    EXPECT_EQ(ReadFile(directory.path / "service"),
              "<name replace-wildcards=\"yes\" >Veltrane Enterprise 3.27.0 Policy Hub on %h </name>\n");
}
