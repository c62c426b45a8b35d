#include "FeatureDump.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace orvix::aravis {
namespace {

enum class Kind { kNone, kEnumeration, kBoolean, kFloat, kInteger, kString };

// Integer selectors with more values than this are dumped at their current value only.
constexpr int64_t kMaxSelectorValues = 64;

Kind kindOf(ArvGcNode* node) {
    if (node == nullptr || !ARV_IS_GC_FEATURE_NODE(node) || ARV_IS_GC_COMMAND(node) ||
        ARV_IS_GC_CATEGORY(node)) {
        return Kind::kNone;
    }
    if (ARV_IS_GC_ENUMERATION(node)) {
        return Kind::kEnumeration;
    }
    if (ARV_IS_GC_BOOLEAN(node)) {
        return Kind::kBoolean;
    }
    if (ARV_IS_GC_FLOAT(node)) {
        return Kind::kFloat;
    }
    if (ARV_IS_GC_INTEGER(node)) {
        return Kind::kInteger;
    }
    if (ARV_IS_GC_STRING(node)) {
        return Kind::kString;
    }
    return Kind::kNone;
}

bool leftOut(const std::string& name) {
    return name.rfind("Gev", 0) == 0 || name.rfind("TL", 0) == 0 || name == "DeviceUserID" ||
           name == "TransportLayerControl";
}

bool writable(ArvGcNode* node) {
    auto* f = ARV_GC_FEATURE_NODE(node);
    GError* error = nullptr;
    bool yes = arv_gc_feature_node_is_implemented(f, &error) && error == nullptr;
    g_clear_error(&error);
    yes = yes && arv_gc_feature_node_is_available(f, &error) && error == nullptr;
    g_clear_error(&error);
    return yes && arv_gc_feature_node_get_actual_access_mode(f) == ARV_GC_ACCESS_MODE_RW;
}

bool isSelector(ArvGcNode* node) {
    return ARV_IS_GC_SELECTOR(node) && arv_gc_selector_is_selector(ARV_GC_SELECTOR(node));
}

bool read(ArvGcNode* node, std::string& value, GError** error) {
    char text[64];
    switch (kindOf(node)) {
        case Kind::kEnumeration: {
            const char* s = arv_gc_enumeration_get_string_value(ARV_GC_ENUMERATION(node), error);
            value = s != nullptr ? s : "";
            break;
        }
        case Kind::kBoolean:
            value.assign(1, arv_gc_boolean_get_value(ARV_GC_BOOLEAN(node), error) ? '1' : '0');
            break;
        case Kind::kFloat:
            std::snprintf(text, sizeof text, "%.17g",
                          arv_gc_float_get_value(ARV_GC_FLOAT(node), error));
            value = text;
            break;
        case Kind::kInteger:
            value = std::to_string(arv_gc_integer_get_value(ARV_GC_INTEGER(node), error));
            break;
        case Kind::kString: {
            const char* s = arv_gc_string_get_value(ARV_GC_STRING(node), error);
            value = s != nullptr ? s : "";
            break;
        }
        case Kind::kNone:
            return false;
    }
    return *error == nullptr;
}

// Whether the text is a value of the node's kind; writes it when `write` is set.
bool write(ArvGcNode* node, const std::string& value, GError** error, bool doWrite = true) {
    const char* text = value.c_str();
    char* end = nullptr;
    errno = 0;
    switch (kindOf(node)) {
        case Kind::kEnumeration:
            if (doWrite) {
                arv_gc_enumeration_set_string_value(ARV_GC_ENUMERATION(node), text, error);
            } else {
                bool known = false;
                for (const GSList* it = arv_gc_enumeration_get_entries(ARV_GC_ENUMERATION(node));
                     it != nullptr && !known; it = it->next) {
                    known = value == arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(it->data));
                }
                return known;
            }
            break;
        case Kind::kBoolean:
            if (value != "0" && value != "1") {
                return false;
            }
            if (doWrite) {
                arv_gc_boolean_set_value(ARV_GC_BOOLEAN(node), value == "1", error);
            }
            break;
        case Kind::kFloat: {
            const double v = std::strtod(text, &end);
            if (value.empty() || *end != '\0' || errno != 0) {
                return false;
            }
            if (doWrite) {
                arv_gc_float_set_value(ARV_GC_FLOAT(node), v, error);
            }
            break;
        }
        case Kind::kInteger: {
            const long long v = std::strtoll(text, &end, 10);
            if (value.empty() || *end != '\0' || errno != 0) {
                return false;
            }
            if (doWrite) {
                arv_gc_integer_set_value(ARV_GC_INTEGER(node), v, error);
            }
            break;
        }
        case Kind::kString:
            if (doWrite) {
                arv_gc_string_set_value(ARV_GC_STRING(node), text, error);
            }
            break;
        case Kind::kNone:
            return false;
    }
    return !doWrite || *error == nullptr;
}

void walk(ArvGc* gc, const char* name, std::set<std::string>& seen,
          std::vector<std::string>& order) {
    if (leftOut(name) || !seen.insert(name).second) {
        return;
    }
    ArvGcNode* node = arv_gc_get_node(gc, name);
    if (node != nullptr && ARV_IS_GC_CATEGORY(node)) {
        for (const GSList* it = arv_gc_category_get_features(ARV_GC_CATEGORY(node)); it != nullptr;
             it = it->next) {
            walk(gc, static_cast<const char*>(it->data), seen, order);
        }
        return;
    }
    order.emplace_back(name);
}

std::vector<std::string> selectorValues(ArvGcNode* node) {
    std::vector<std::string> values;
    GError* error = nullptr;
    if (ARV_IS_GC_ENUMERATION(node)) {
        guint n = 0;
        const char** names =
            arv_gc_enumeration_dup_available_string_values(ARV_GC_ENUMERATION(node), &n, &error);
        for (guint i = 0; names != nullptr && i < n; ++i) {
            values.emplace_back(names[i]);
        }
        g_free(names);
    } else if (ARV_IS_GC_INTEGER(node)) {
        auto* integer = ARV_GC_INTEGER(node);
        const int64_t min = arv_gc_integer_get_min(integer, &error);
        const int64_t max = error == nullptr ? arv_gc_integer_get_max(integer, &error) : min;
        int64_t inc = error == nullptr ? arv_gc_integer_get_inc(integer, &error) : 1;
        inc = inc < 1 ? 1 : inc;
        if (error == nullptr && max >= min && (max - min) / inc < kMaxSelectorValues) {
            for (int64_t v = min; v <= max; v += inc) {
                values.push_back(std::to_string(v));
            }
        }
    }
    g_clear_error(&error);
    return values;
}

}  // namespace

Status collectFeatures(Connection& connection, std::vector<FeatureValue>& features) {
    features.clear();
    ArvGc* gc = arv_device_get_genicam(connection.device());
    std::set<std::string> seen;
    std::vector<std::string> order;
    walk(gc, "Root", seen, order);

    // What selectors select is dumped once per selector value, not on its own.
    std::set<std::string> selected;
    for (const std::string& name : order) {
        ArvGcNode* node = arv_gc_get_node(gc, name.c_str());
        if (kindOf(node) != Kind::kNone && isSelector(node)) {
            for (const GSList* it = arv_gc_selector_get_selected_features(ARV_GC_SELECTOR(node));
                 it != nullptr; it = it->next) {
                selected.insert(arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(it->data)));
            }
        }
    }

    for (const std::string& name : order) {
        ArvGcNode* node = arv_gc_get_node(gc, name.c_str());
        if (kindOf(node) == Kind::kNone || selected.count(name) != 0 || !writable(node)) {
            continue;
        }
        GError* error = nullptr;
        std::string current;
        if (!read(node, current, &error)) {
            return connection.take(error, "Save configuration: read " + name);
        }
        if (isSelector(node)) {
            for (const std::string& v : selectorValues(node)) {
                if (!write(node, v, &error)) {
                    g_clear_error(&error);
                    continue;
                }
                for (const GSList* it =
                         arv_gc_selector_get_selected_features(ARV_GC_SELECTOR(node));
                     it != nullptr; it = it->next) {
                    auto* target = ARV_GC_NODE(it->data);
                    const char* targetName =
                        arv_gc_feature_node_get_name(ARV_GC_FEATURE_NODE(target));
                    std::string value;
                    if (kindOf(target) == Kind::kNone || leftOut(targetName) || !writable(target)) {
                        continue;
                    }
                    if (!read(target, value, &error)) {
                        g_clear_error(&error);
                        continue;
                    }
                    features.push_back({targetName, {{name, v}}, value, 0});
                }
            }
            write(node, current, &error);  // the selector as it was
            if (error != nullptr) {
                return connection.take(error, "Save configuration: restore " + name);
            }
        }
        features.push_back({name, {}, current, 0});
    }
    return Status::success();
}

Status checkFeatures(Connection& connection, const std::vector<FeatureValue>& features) {
    ArvGc* gc = arv_device_get_genicam(connection.device());
    for (const FeatureValue& f : features) {
        const std::string where = "Configuration file line " + std::to_string(f.line) + ": ";
        ArvGcNode* node = arv_gc_get_node(gc, f.feature.c_str());
        GError* error = nullptr;
        if (kindOf(node) == Kind::kNone || !write(node, f.value, &error, false)) {
            return Status::fail(
                ORVIX_ERR_INVALID_PARAMETER,
                where + "the camera has no feature " + f.feature + " taking '" + f.value + "'");
        }
        for (const auto& [selector, value] : f.selectors) {
            ArvGcNode* s = arv_gc_get_node(gc, selector.c_str());
            if (kindOf(s) == Kind::kNone || !isSelector(s) || !write(s, value, &error, false)) {
                return Status::fail(
                    ORVIX_ERR_INVALID_PARAMETER,
                    where + "the camera has no selector " + selector + " taking '" + value + "'");
            }
        }
    }
    return Status::success();
}

Status writeFeatures(Connection& connection, const std::vector<FeatureValue>& features) {
    ArvGc* gc = arv_device_get_genicam(connection.device());
    std::set<std::string> selectors;
    for (const FeatureValue& f : features) {
        for (const auto& [selector, value] : f.selectors) {
            (void)value;
            selectors.insert(selector);
        }
    }
    std::string refusal;
    auto writeOne = [&](const FeatureValue& f) {
        GError* error = nullptr;
        for (const auto& [selector, value] : f.selectors) {
            if (!write(arv_gc_get_node(gc, selector.c_str()), value, &error)) {
                refusal = selector + "=" + value + ": " + (error ? error->message : "refused");
                connection.take(error, refusal);
                return false;
            }
        }
        if (!write(arv_gc_get_node(gc, f.feature.c_str()), f.value, &error)) {
            refusal = f.feature + "=" + f.value + ": " + (error ? error->message : "refused");
            connection.take(error, refusal);
            return false;
        }
        return true;
    };

    std::vector<const FeatureValue*> pending;
    for (const FeatureValue& f : features) {
        pending.push_back(&f);
    }
    while (!pending.empty()) {
        std::vector<const FeatureValue*> failed;
        std::string firstRefusal;
        for (const FeatureValue* f : pending) {
            if (!writeOne(*f)) {
                if (failed.empty()) {
                    firstRefusal = refusal;
                }
                failed.push_back(f);
            }
            if (connection.lost()) {
                return Status::fail(ORVIX_ERR_TIMEOUT,
                                    "Load configuration: the camera stopped answering");
            }
        }
        if (failed.size() == pending.size()) {
            return Status::fail(ORVIX_ERR_REFUSED,
                                "Load configuration: the camera refused " + firstRefusal);
        }
        pending.swap(failed);
    }
    // Selected values were written through their selectors: the selectors end as saved.
    for (const FeatureValue& f : features) {
        if (f.selectors.empty() && selectors.count(f.feature) != 0 && !writeOne(f)) {
            return Status::fail(ORVIX_ERR_REFUSED,
                                "Load configuration: the camera refused " + refusal);
        }
    }
    return Status::success();
}

}  // namespace orvix::aravis
