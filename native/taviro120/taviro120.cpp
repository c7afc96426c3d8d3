#include "taviro120.h"

#include <cstring>
#include <new>

namespace {

constexpr const char* kNames[] = {"NumVars", "NumConstrs", "NumQConstrs", "NumGenConstrs"};
constexpr int kAttributes = sizeof(kNames) / sizeof(kNames[0]);

}  // namespace

struct TVOmodel {
    int values[kAttributes] = {};
};

namespace {

/// Finds the place of an attribute; the status is 0 where there is one.
int find(TVOmodel* model, const char* attrname, int*& place) {
    if (!model || !attrname) return TVO_ERROR_NULL_ARGUMENT;
    for (int k = 0; k < kAttributes; ++k) {
        if (std::strcmp(attrname, kNames[k]) == 0) {
            place = &model->values[k];
            return 0;
        }
    }
    return TVO_ERROR_UNKNOWN_ATTRIBUTE;
}

}  // namespace

TVOmodel* TVOnewmodel() { return new (std::nothrow) TVOmodel(); }

void TVOfreemodel(TVOmodel* model) { delete model; }

int TVOgetintattr(TVOmodel* model, const char* attrname, int* value) {
    if (!value) return TVO_ERROR_NULL_ARGUMENT;
    int* place = nullptr;
    int status = find(model, attrname, place);
    if (status == 0) *value = *place;
    return status;
}

int TVOsetintattr(TVOmodel* model, const char* attrname, int value) {
    int* place = nullptr;
    int status = find(model, attrname, place);
    if (status == 0) *place = value;
    return status;
}
