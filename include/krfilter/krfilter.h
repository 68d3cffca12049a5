/* krfilter: image filters for 16-bit grey radiographs.
 *
 * The one public header. C++ hosts get the exported image class CKRImage;
 * C hosts (and Python through ctypes) get the catalogue types, FilterProcessing
 * and GetInformation, and may pass CKRImage objects only as opaque pointers.
 * Every record here has a fixed layout that hosts compile against: do not
 * reorder or resize members. */
#ifndef KRFILTER_KRFILTER_H
#define KRFILTER_KRFILTER_H

#if defined(_WIN32)
#  if defined(KRFILTER_BUILDING)
#    define KRFILTER_API __declspec(dllexport)
#  else
#    define KRFILTER_API __declspec(dllimport)
#  endif
#else
#  define KRFILTER_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Value type of a catalogue parameter; 0 marks the terminating descriptor. */
typedef enum ParamType {
    PARAM_END = 0,
    PARAM_INT = 1,
    PARAM_FLOAT = 2,
    PARAM_DOUBLE = 3
} ParamType;

/* One parameter of a filter, as a host shows it in a dialog. */
typedef struct FILTERPARAM {
    const char* name;
    ParamType type;
    unsigned int reserved;
    int size;      /* bytes of the value the host passes: 4 for int and float, 8 for double */
    double min;
    double max;
    double def;
} FILTERPARAM;

/* One filter of the catalogue; params ends with a descriptor named "#". */
typedef struct FILTERLIST {
    char name[56];
    FILTERPARAM* params;
    unsigned int reserved;
} FILTERLIST;

/* The catalogue: records in catalogue order, ended by a record named "#". */
KRFILTER_API extern FILTERLIST filterlist[];

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
/* Single-channel 16-bit grey image as an array of row pointers.
 * The seven data members and their order are part of the binary interface:
 * hosts allocate the object themselves. ownership: 1 = rows borrowed,
 * 2 = rows allocated and freed by this object, -2 = an owning allocation failed.
 * The RGB buffer made by GetRGBVector belongs to the object and is released
 * by its destructor; after an assignment the copy shares it, so exactly one of
 * the two may be destroyed, as with owned rows. */
class KRFILTER_API CKRImage {
public:
    CKRImage();
    CKRImage(unsigned short** rows, int height, int width, int white);
    CKRImage(int height, int width, int white);
    ~CKRImage();
    CKRImage& operator=(const CKRImage& other);

    int GetHeight(int* out);
    int GetWidth(int* out);
    int GetWhite(int* out);
    int SetHeight(int value);
    int SetWidth(int value);
    int SetWhite(int value);
    int GetImage(unsigned short*** out);
    int GetRGBVector(unsigned char** out);

    unsigned short** rows;
    unsigned char* rgb;
    int height;
    int width;
    unsigned short white;
    int ownership;
    unsigned int reserved;
};
#else
typedef struct CKRImage CKRImage;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Runs the named filter from in to out (out must have in's size). Returns 0
 * on success, -1 for a null name, -2 for a null params where the filter reads
 * parameters, -3 for an unknown name, otherwise the filter's own code. */
KRFILTER_API int DoFilter(CKRImage* in, CKRImage* out, char* name, void** params);

/* As DoFilter on raw row-pointer arrays (unsigned short**). Note the order:
 * width before height. depth is accepted and ignored. */
KRFILTER_API int FilterProcessing(void* inRows, unsigned long width, unsigned long height,
                                  unsigned char depth, unsigned short white, void* outRows,
                                  char* name, void** params);

/* Kept for interface compatibility: ignores its arguments and returns 0. */
KRFILTER_API unsigned long GetInformation(unsigned long what, void** data);

#ifdef __cplusplus
}
#endif

#endif
