/// Loaded into clang-tidy by scripts/tidy: every check then passes over the declarations of system headers, in whose
/// place nothing is reported anyway. They are nearly all that a source holds, and took three quarters of the time.
#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>

namespace {

using clang::ast_matchers::MatchFinder;

/// The first declaration that is looked at is the whole source; its parts are asked for only then.
class Scope : public clang::tidy::ClangTidyCheck {
 public:
  using ClangTidyCheck::ClangTidyCheck;

  void registerMatchers(MatchFinder* finder) override {
    finder->addMatcher(clang::ast_matchers::translationUnitDecl().bind("source"), this);
  }

  void run(const MatchFinder::MatchResult& result) override {
    const clang::SourceManager& files = *result.SourceManager;
    std::vector<clang::Decl*> own;
    for (clang::Decl* declaration : result.Context->getTranslationUnitDecl()->decls()) {
      if (!files.isInSystemHeader(files.getExpansionLoc(declaration->getLocation()))) own.push_back(declaration);
    }
    result.Context->setTraversalScope(own);
  }
};

class ScopeModule : public clang::tidy::ClangTidyModule {
  void addCheckFactories(clang::tidy::ClangTidyCheckFactories& checks) override {
    checks.registerCheck<Scope>("scope");
  }
};

const clang::tidy::ClangTidyModuleRegistry::Add<ScopeModule> kAdded("scope", "Leaves system headers out.");

}  // namespace
