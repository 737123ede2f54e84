// The namespace that carries the version: what is declared between QUENOR_NAMESPACE_BEGIN and _END
// is used as quenor::Name and linked as quenor::VERSION::Name, so that two versions in one process
// have nothing of each other's. In code for a shared object it is hidden, too, so that two of the
// same version do not either. docs/guide/embedding.md says what they still share.
#ifndef QUENOR_BASE_PLATFORM_BASE_ABI_H_
#define QUENOR_BASE_PLATFORM_BASE_ABI_H_

// The version, written here and nowhere else.
#define QUENOR_ABI v0_1_0

// QUENOR_SHARED: in the shared library, and in who links it; its version script says what it
// exports.
#if defined(QUENOR_SHARED)
#define QUENOR_ABI_VISIBILITY __attribute__((visibility("default")))
#elif defined(__PIC__) && !defined(__PIE__)
#define QUENOR_ABI_VISIBILITY __attribute__((visibility("hidden")))
#else
#define QUENOR_ABI_VISIBILITY
#endif

// clang-format off
#define QUENOR_NAMESPACE_BEGIN namespace quenor { inline namespace QUENOR_ABI QUENOR_ABI_VISIBILITY {
#define QUENOR_NAMESPACE_END } }
// clang-format on

#endif  // QUENOR_BASE_PLATFORM_BASE_ABI_H_
