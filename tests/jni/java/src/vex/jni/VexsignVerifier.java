package vex.jni;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.bouncycastle.cms.CMSSignedData;

/** This project's own vexsign verify, which does not use the toolkit for it. */
final class VexsignVerifier implements Verifier {
    private final String program;
    private final Path directory;

    /** @param directory for its files; no other verifier may use it */
    VexsignVerifier(String program, Path directory) {
        this.program = program;
        this.directory = directory;
    }

    @Override
    public String name() {
        return "vexsign";
    }

    private Answer verify(byte[] signature, byte[] content, Knowledge knowledge, List<String> options)
            throws Exception {
        Files.write(directory.resolve("signature"), signature);
        Files.writeString(directory.resolve("root.pem"), TestStore.pem(List.of(knowledge.root())));
        List<String> command = new ArrayList<>(List.of(program, "verify", "signature", "--ca", "root.pem"));
        if (!knowledge.given().isEmpty()) {
            Files.writeString(directory.resolve("given.pem"), TestStore.pem(knowledge.given()));
            command.addAll(List.of("--cert", "given.pem"));
        }
        if (content != null) {
            Files.write(directory.resolve("content"), content);
            command.add("content");
        }
        command.addAll(options);
        Run run = Run.of(new ProcessBuilder(command).directory(directory.toFile()).redirectErrorStream(true));
        return run.status() == 0 ? Answer.accepts(content) : Answer.refuses(run.output());
    }

    /** It has no command for a path alone. */
    @Override
    public Answer onPath(Knowledge knowledge) {
        throw new UnsupportedOperationException();
    }

    @Override
    public Answer onP1(byte[] signature, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        return verify(signature, content, knowledge, scheme.isEdwards() ? List.of()
            : List.of("--digest", scheme.digest().name() + (scheme.pss() ? "/PSS" : "")));
    }

    @Override
    public Answer onP7(byte[] der, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        if (content != null) {
            return verify(der, content, knowledge, List.of());
        }
        // The report does not have the content. With a file, it says whether both contents are the signed one.
        byte[] contained;
        try {
            contained = (byte[]) new CMSSignedData(der).getSignedContent().getContent();
        } catch (Exception e) {
            return Answer.refuses(e.toString());
        }
        return verify(der, contained, knowledge, List.of());
    }
}
