package vex.client;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * The calls of a {@link SigningClient}. From its beginning to its end, each of them keeps the client reachable and what
 * it uses open, also while it reads the caller's stream. Any thread may call any method.
 */
final class ClientCalls {
    /** Not used, but as long as this object is in use, the reaper does not close the client. */
    @SuppressWarnings("unused")
    private final SigningClient client;
    private final CallGate gate;
    private final Session session;
    private final Selection selection;
    private final ContentSigner content;
    private final SignerChoice choice;

    ClientCalls(SigningClient client, CallGate gate, Session session, Selection selection, ContentSigner content,
            SignerChoice choice) {
        this.client = client;
        this.gate = gate;
        this.session = session;
        this.selection = selection;
        this.content = content;
        this.choice = choice;
    }

    byte[] signRaw(String text) throws SigningException {
        gate.enter();
        try {
            return content.signRaw(text);
        } finally {
            gate.leave();
        }
    }

    byte[] signRaw(byte[] data) throws SigningException {
        gate.enter();
        try {
            return content.signRaw(data);
        } finally {
            gate.leave();
        }
    }

    byte[] signDigest(byte[] value) throws SigningException {
        gate.enter();
        try {
            return content.signDigest(value);
        } finally {
            gate.leave();
        }
    }

    byte[] sign(String text, CmsForm form) throws SigningException {
        gate.enter();
        try {
            return content.sign(text, form);
        } finally {
            gate.leave();
        }
    }

    byte[] sign(byte[] data, CmsForm form) throws SigningException {
        gate.enter();
        try {
            return content.sign(data, form);
        } finally {
            gate.leave();
        }
    }

    byte[] sign(Path file, CmsForm form) throws IOException, SigningException {
        gate.enter();
        try {
            return content.sign(file, form);
        } finally {
            gate.leave();
        }
    }

    byte[] sign(InputStream stream, CmsForm form) throws IOException, SigningException {
        gate.enter();
        try {
            return content.sign(stream, form);
        } finally {
            gate.leave();
        }
    }

    SigningResult sign(SigningRequest request) throws IOException, SigningException {
        gate.enter();
        try {
            return choice.sign(request);
        } finally {
            gate.leave();
        }
    }

    X509Certificate signer() throws SigningException {
        gate.enter();
        try {
            return choice.chain()[0];
        } finally {
            gate.leave();
        }
    }

    List<CertificateInfo> certificates() throws SigningException {
        gate.enter();
        try {
            return session.certificates(selection);
        } finally {
            gate.leave();
        }
    }
}
