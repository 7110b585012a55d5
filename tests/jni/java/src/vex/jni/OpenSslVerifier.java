package vex.jni;

import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;

/** The openssl command. */
final class OpenSslVerifier implements Verifier {
    private static final List<String> ONLY_THE_ROOT = List.of("-CAfile", "root.pem", "-no-CApath", "-no-CAstore");

    private final Path directory;
    private Knowledge written;
    private Knowledge pathKnown;
    private Answer path;

    /** @param directory for its files; no other verifier may use it */
    OpenSslVerifier(Path directory) {
        this.directory = directory;
    }

    @Override
    public String name() {
        return "openssl";
    }

    private void write(Knowledge knowledge) throws Exception {
        if (knowledge.equals(written)) {
            return;
        }
        Files.writeString(directory.resolve("root.pem"), TestStore.pem(List.of(knowledge.root())));
        if (!knowledge.given().isEmpty()) {
            X509Certificate first = knowledge.given().get(0);
            Files.writeString(directory.resolve("given.pem"), TestStore.pem(knowledge.given()));
            Files.writeString(directory.resolve("first.pem"), TestStore.pem(List.of(first)));
            Files.writeString(directory.resolve("public.pem"),
                TestStore.pem("PUBLIC KEY", first.getPublicKey().getEncoded()));
        }
        written = knowledge;
    }

    /** Null if it accepts. */
    private String refusal(List<String> arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of("openssl"));
        command.addAll(arguments);
        Run run = Run.of(new ProcessBuilder(command).directory(directory.toFile()).redirectErrorStream(true));
        return run.status() == 0 ? null : run.output();
    }

    private static List<String> join(List<String> begin, List<String> end) {
        List<String> all = new ArrayList<>(begin);
        all.addAll(end);
        return all;
    }

    @Override
    public Answer onPath(Knowledge knowledge) throws Exception {
        write(knowledge);
        if (!knowledge.equals(pathKnown)) {
            String refusal = refusal(join(join(List.of("verify"), ONLY_THE_ROOT), List.of("-untrusted", "given.pem",
                "first.pem")));
            path = refusal == null ? Answer.accepts(new byte[0]) : Answer.refuses(refusal);
            pathKnown = knowledge;
        }
        return path;
    }

    @Override
    public Answer onP1(byte[] signature, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        write(knowledge);
        Files.write(directory.resolve("content"), content);
        Files.write(directory.resolve("signature"), signature);
        List<String> command = new ArrayList<>();
        if (scheme.isEdwards()) {
            command.addAll(List.of("pkeyutl", "-verify", "-rawin", "-pubin", "-inkey", "public.pem", "-sigfile",
                "signature", "-in", "content"));
        } else {
            command.addAll(List.of("dgst", "-" + scheme.digest().openSsl()));
            if (scheme.pss()) {
                command.addAll(List.of("-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:digest"));
            }
            command.addAll(List.of("-verify", "public.pem", "-signature", "signature", "content"));
        }
        String refusal = refusal(command);
        return refusal == null ? Answer.accepts(content) : Answer.refuses(refusal);
    }

    @Override
    public Answer onP7(byte[] der, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception {
        write(knowledge);
        Files.write(directory.resolve("p7"), der);
        Path recovered = directory.resolve("recovered");
        Files.deleteIfExists(recovered);
        List<String> trust = ONLY_THE_ROOT;
        if (!knowledge.given().isEmpty()) {
            // openssl cms 3.0 finds the signer's certificate in -certfile, but no issuers.
            Answer answer = onPath(knowledge);
            if (!answer.isAccepted()) {
                return answer;
            }
            trust = List.of("-noverify", "-nointern", "-certfile", "first.pem");
        }
        List<String> command =
            join(List.of("cms", "-verify", "-binary", "-inform", "DER", "-in", "p7", "-out", "recovered"), trust);
        if (content != null) {
            Files.write(directory.resolve("content"), content);
            command.addAll(List.of("-content", "content"));
        }
        String refusal = refusal(command);
        return refusal == null ? Answer.accepts(Files.readAllBytes(recovered)) : Answer.refuses(refusal);
    }
}
