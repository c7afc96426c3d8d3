/* The native handle of a model and its integer counts. */
#ifndef TAVIRO120_H
#define TAVIRO120_H

#define TVO_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TVOmodel TVOmodel;

/* A new handle with all counts 0, or NULL where memory is short. */
TVO_API TVOmodel* TVOnewmodel(void);

/* Releases a handle; NULL is allowed. */
TVO_API void TVOfreemodel(TVOmodel* model);

/* Integer attributes "NumVars", "NumConstrs", "NumQConstrs", "NumGenConstrs".
 * Both return 0, or TVO_ERROR_NULL_ARGUMENT or TVO_ERROR_UNKNOWN_ATTRIBUTE and change nothing. */
TVO_API int TVOgetintattr(TVOmodel* model, const char* attrname, int* value);
TVO_API int TVOsetintattr(TVOmodel* model, const char* attrname, int value);

enum { TVO_ERROR_NULL_ARGUMENT = 1, TVO_ERROR_UNKNOWN_ATTRIBUTE = 2 };

#ifdef __cplusplus
}
#endif

#endif
