/// Shared base of the cloud-signalling tests: the module is driven through its internal
/// functions with the two mutexes created by hand and no upload thread.
#ifndef VEXO_CLOUD_FIXTURE_H
#define VEXO_CLOUD_FIXTURE_H

#include <cstdio>
#include <string>
#include <vector>

#include "core/cloud_storage_internal.h"
#include "kit_fixture.h"

using Texts = std::vector<std::string>;

class CloudTest : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        reset_kit();
        cloud_storage_ctl.media_info = default_media_info();
    }
    void TearDown() override {
        cloud_storage_ctl.inited = 0; // set by hand in some tests: there is nothing to uninit
        KitTest::TearDown();
    }
    /// A fresh kit (clock, scripts, records) with the two mutexes created again.
    static void reset_kit() {
        tk::reset();
        ASSERT_EQ(vexo_hal_mutex_create_init(&cloud_storage_ctl.event_mutex), 0);
        ASSERT_EQ(vexo_hal_mutex_create_init(&cloud_storage_ctl.upload_mutex), 0);
    }
    static void set_mode_text(const char *text) {
        snprintf(cloud_storage_ctl.storage_config.store_mode,
                 sizeof(cloud_storage_ctl.storage_config.store_mode), "%s", text);
    }
    /// The sequence log, one entry per item: 'r' for a report, the number, then the value by
    /// kind (":code", "@time", "'text'"; nothing for kind 0). Module must be "cloud_storage".
    static Texts trail() {
        Texts out;
        for (const tk::SeqEntry &e : tk::seq_log()) {
            std::string s = (e.report ? "r" : "") + std::to_string(e.seq);
            s += e.kind == 1   ? ":" + std::to_string(e.value)
                 : e.kind == 3 ? "@" + std::to_string(e.value)
                 : e.kind == 4 ? "'" + e.text + "'"
                               : (e.value == 0 ? "" : "?");
            out.push_back(e.module == "cloud_storage" ? s : "module " + e.module);
        }
        return out;
    }
    /// Texts of the error lines logged so far.
    static Texts errors() {
        Texts out;
        for (const tk::LogLine &l : tk::logs()) {
            if (l.level == tk::Level::err) {
                out.push_back(l.text);
            }
        }
        return out;
    }
    static void deliver(void (*handler)(cJSON *), const std::string &json) {
        cJSON *root = cJSON_Parse(json.c_str());
        ASSERT_NE(root, nullptr) << json;
        handler(root);
        cJSON_Delete(root);
    }
};

#endif
