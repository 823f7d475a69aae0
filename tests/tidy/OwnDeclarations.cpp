// SPDX-License-Identifier: MIT
//
// Loaded into clang-tidy by scripts/check-tidy. Its checks otherwise look through every header of
// the library that a file includes, only to drop what they find there: five sixths of their time.

#include <memory>
#include <string>
#include <vector>

#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/AST/DeclGroup.h>
#include <clang/Basic/SourceManager.h>
#include <clang/Frontend/CompilerInstance.h>
#include <clang/Frontend/FrontendAction.h>
#include <clang/Frontend/FrontendPluginRegistry.h>

namespace {

/// Leaves the checks what a file and the project's own headers declare.
class OwnDeclarations : public clang::ASTConsumer {
public:
    bool HandleTopLevelDecl(clang::DeclGroupRef group) override {
        for (clang::Decl* const declaration : group) {
            const auto& sources = declaration->getASTContext().getSourceManager();
            if (!sources.isInSystemHeader(declaration->getLocation())) {
                own_.push_back(declaration);
            }
        }
        return true;
    }

    void HandleTranslationUnit(clang::ASTContext& context) override {
        context.setTraversalScope(own_);
    }

private:
    std::vector<clang::Decl*> own_;
};

class KeepOwnDeclarations : public clang::PluginASTAction {
protected:
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(
        clang::CompilerInstance& /*compiler*/, llvm::StringRef /*file*/) override {
        return std::make_unique<OwnDeclarations>();
    }

    bool ParseArgs(
        const clang::CompilerInstance& /*compiler*/,
        const std::vector<std::string>& /*arguments*/) override {
        return true;
    }

    ActionType getActionType() override { return AddBeforeMainAction; }
};

const clang::FrontendPluginRegistry::Add<KeepOwnDeclarations> registered(
    "own-declarations", "leaves the checks no declaration of a system's header");

}  // namespace
